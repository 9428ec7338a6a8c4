#include "Item.h"

#include "Names.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace ctl {

namespace {

std::string withoutPrefix(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
}

} // namespace

std::string shortest(double number) {
    std::array<char, 64> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
    return {buffer.data(), result.ptr};
}

bool Item::isSame(const Item& other) const {
    return objectPath == other.objectPath && interface == other.interface && name == other.name;
}

std::string Item::shortObject() const {
    return objectPath == rootObjectPath ? "" : withoutPrefix(objectPath, std::string(rootObjectPath) + "/");
}

std::string Item::shortInterface() const { return withoutPrefix(interface, std::string(interfaceBaseName) + "."); }

std::string Item::shortName() const { return shortObject() + "/" + shortInterface() + "/" + name; }

bool Item::isMeantBy(const std::string& wanted) const {
    const auto isMeant = [&](const std::string& interfacePart) {
        return (!interfacePart.empty() && wanted == interfacePart + name) ||
               wanted == shortObject() + "/" + interfacePart + name ||
               wanted == objectPath + "/" + interfacePart + name;
    };
    return wanted == name || isMeant("") || isMeant(interface + "/") || isMeant(shortInterface() + "/");
}

const Item& findItem(const std::vector<Item>& items, const std::string& wanted) {
    std::vector<const Item*> candidates;
    for (const Item& item : items) {
        if (wanted == item.shortName())
            return item;
        if (item.isMeantBy(wanted))
            candidates.push_back(&item);
    }
    if (candidates.empty())
        throw Failure(wanted + ": no such item");
    if (candidates.size() == 1)
        return *candidates.front();
    std::string message = wanted + ": ambiguous, it could be";
    for (const Item* candidate : candidates)
        message += "\n  " + candidate->shortName();
    throw Failure(message);
}

std::string printable(const std::string& text) {
    static constexpr std::array digits{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        // In UTF-8, the bytes C2 80 to C2 9F are control characters as well.
        const bool isHighControl =
            byte == 0xC2U && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0U;
        if (byte >= 0x20 && byte != 0x7f && !isHighControl) {
            result += text[i];
            continue;
        }
        const unsigned control = isHighControl ? static_cast<unsigned char>(text[++i]) : byte;
        result += "\\x";
        result += digits[control / 16U];
        result += digits[control % 16U];
    }
    return result;
}

Json::Value toJson(const Item& item) {
    Json::Value object;
    object["object"] = item.objectPath;
    object["interface"] = item.interface;
    object["property"] = item.name;
    object["type"] = item.signature;
    object["access"] = item.access;
    object["value"] = item.value ? item.value->json : Json::Value();
    return object;
}

std::string shown(const std::optional<Value>& value) {
    if (!value)
        return "-";
    return value->text.empty() ? "\"\"" : printable(value->text);
}

} // namespace ctl
