#include "Element.h"

#include "ConfigFileParser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

namespace check {

namespace {

/// What a key's value has to be.
enum class Expected { text, textOrNumber, number, flag, object };

struct Key {
    const char* name;
    Expected expected;
};

constexpr std::array keys{
    Key{"name", Expected::text},     Key{"interface", Expected::text}, Key{"objectpath", Expected::text},
    Key{"path", Expected::text},     Key{"location", Expected::text},  Key{"offset", Expected::textOrNumber},
    Key{"length", Expected::number}, Key{"type", Expected::text},      Key{"read", Expected::flag},
    Key{"write", Expected::flag},    Key{"signal", Expected::flag},    Key{"translate", Expected::object},
};

std::string expectation(Expected expected) {
    switch (expected) {
    case Expected::text:
        return "a string";
    case Expected::textOrNumber:
        return "a string or an integer from 0 to 4294967295";
    case Expected::number:
        return "an integer from 0 to 4294967295";
    case Expected::flag:
        return "true or false";
    default:
        return "an object";
    }
}

bool isAsExpected(const Json::Value& value, Expected expected) {
    switch (expected) {
    case Expected::text:
        return value.isString();
    case Expected::textOrNumber:
        return value.isString() || value.isUInt();
    case Expected::number:
        return value.isUInt();
    case Expected::flag:
        return value.isBool();
    default:
        return value.isObject();
    }
}

/// Converts the value as the daemon does and says how it is taken; throws what the daemon would throw.
std::string converted(const Json::Value& element, const Json::Value& value, Expected expected) {
    if (value.isNull())
        return "taken as missing";
    switch (expected) {
    case Expected::number:
        return "taken as " + std::to_string(value.asUInt());
    case Expected::flag:
        return value.asBool() ? "taken as true" : "taken as false";
    case Expected::object:
        if (element["location"] == "fuses")
            ConfigFileParser::translateValue(element, "");
        return "not looked at";
    default:
        return "taken as the text " + quoted(value.asString());
    }
}

/// Returns false when the daemon ends over the value.
bool checkType(const Element& element, const Key& key) {
    const Json::Value& value = element.json[key.name];
    if (!element.json.isMember(key.name) || isAsExpected(value, key.expected))
        return true;
    const std::string type = value.isNumeric() && !value.isBool() ? "the number " + value.asString() : typeName(value);
    const std::string reason = "is " + type + ", not " + expectation(key.expected);
    try {
        element.report(Kind::oddType, key.name, reason + ", and " + converted(element.json, value, key.expected));
        return true;
    } catch (const Json::Exception&) {
        element.report(Kind::wrongType, key.name, reason);
        return false;
    }
}

/// The number of insertions, removals and replacements that make one text the other.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Returns the known key that was probably meant.
std::optional<std::string> suggestion(const std::string& unknown) {
    std::string plain;
    for (const char c : unknown)
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            plain += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto farther = [&](const Key& one, const Key& other) {
        return distance(plain, one.name) < distance(plain, other.name);
    };
    const Key& nearest = *std::min_element(keys.begin(), keys.end(), farther);
    constexpr std::size_t typingErrors = 2;
    if (distance(plain, nearest.name) > typingErrors)
        return std::nullopt;
    return nearest.name;
}

void checkUnknown(const Element& element, const std::string& name) {
    if (std::any_of(keys.begin(), keys.end(), [&](const Key& key) { return name == key.name; }))
        return;
    const auto meant = suggestion(name);
    element.report(Kind::unknownKey, name, "unknown key" + (meant ? ", did you mean " + quoted(*meant) + "?" : ""));
}

/// Does what the daemon does with each key, after the types are known to be convertible.
ConfigEntry makeEntry(const Json::Value& json) {
    ConfigEntry entry;
    entry.name = json["name"].asString();
    entry.interface = json["interface"].asString();
    entry.objectPath = json["objectpath"].asString();
    entry.path = json["path"].asString();
    entry.path.resize(std::min(entry.path.size(), entry.path.find('\0'))); // as files are opened
    entry.location = json["location"].asString();
    entry.offset = ConfigFileParser::convert(json["offset"].asString());
    entry.length = json["length"].asUInt();
    entry.type = json["type"].asString();
    entry.isRead = json["read"].asBool();
    entry.isWrite = json["write"].asBool();
    return entry;
}

void checkOffset(const Element& element) {
    const std::string text = element.json["offset"].asString();
    if (text.empty())
        return;
    const std::string taken = quoted(text) + " is taken as " + std::to_string(element.entry.offset);
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(text.c_str(), &end, 0);
    if (end == text.c_str())
        element.report(Kind::offsetText, "offset", taken + ", it does not begin with a number");
    else if (errno == ERANGE || number < 0 || number > std::numeric_limits<std::uint32_t>::max())
        element.report(Kind::offsetText, "offset", taken + ", it is out of range");
    else if (end != text.c_str() + text.size())
        element.report(Kind::offsetText, "offset", taken + ", the rest is ignored");
    else if (number != std::strtoll(text.c_str(), nullptr, 10) && text.find_first_of("xX") == std::string::npos)
        element.report(Kind::offsetText, "offset", taken + ", a leading zero makes it octal");
}

/// Whether the daemon can ever produce this raw value text for the element.
bool canMatch(const ConfigEntry& entry, const std::string& key) {
    if (key == "*")
        return true;
    constexpr std::uint32_t longestNumber = 4;
    if (entry.length > longestNumber)
        return key.size() == std::size_t{2} * entry.length &&
               key.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (key.empty() || key.size() > 10 || key.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const std::uint64_t number = std::stoull(key);
    return std::to_string(number) == key && number < (std::uint64_t{1} << (8 * entry.length));
}

void checkTranslate(const Element& element) {
    const Json::Value& translate = element.json["translate"];
    if (!translate.isObject())
        return;
    if (element.entry.location != "fuses")
        element.report(Kind::translateIgnored, "translate", "has no effect");
    for (const std::string& key : translate.getMemberNames()) {
        if (!translate[key].isString())
            element.report(Kind::translateValue, "translate",
                           "the member " + quoted(key) + " is " + typeName(translate[key]) + ", not a string");
        else if (element.entry.location == "fuses" && !canMatch(element.entry, key))
            element.report(Kind::translateKey, "translate",
                           "the member " + quoted(key) + " is no value of " + std::to_string(element.entry.length) +
                               (element.entry.length == 1 ? " byte" : " bytes"));
    }
}

void checkFuses(const Element& element) {
    constexpr std::uint32_t huge = 1U << 20U;
    const ConfigEntry& entry = element.entry;
    const bool isInteger = entry.type == "i" || entry.type == "u";
    if (entry.length == 0)
        element.report(Kind::fuseLength, "length", "is 0 or missing");
    else if (entry.length > huge)
        element.report(Kind::hugeLength, "length", std::to_string(entry.length) + " bytes");
    else if (entry.length == 4 && isInteger && element.isReadable() && !element.json["translate"]["*"].isString())
        element.report(Kind::fuseRange, "type", "4 bytes can hold a value above 2147483647");
    if (entry.length > largestTotal / 2)
        element.report(Kind::valueTooLong, "length",
                       std::to_string(entry.length) + " bytes have more than " + std::to_string(largestTotal) +
                           " digits");
    if (entry.isWrite)
        element.report(Kind::writableFuses, "write", "the item is in fuses");
    checkOffset(element);
}

} // namespace

Finding Element::finding(Kind kind, const std::string& key, const std::string& reason) const {
    const Json::Value* value =
        key.empty() || !json.isObject() ? nullptr : json.find(key.data(), key.data() + key.size());
    Finding result{};
    result.kind = kind;
    result.line = document.lineOf(value != nullptr ? *value : json);
    result.element = position;
    result.name = entry.name;
    result.key = key;
    result.reason = reason;
    return result;
}

void Element::report(Kind kind, const std::string& key, const std::string& reason) const {
    findings.push_back(finding(kind, key, reason));
}

bool Element::isReadable() const { return entry.isRead || !entry.isWrite; }

bool checkKeys(Element& element) {
    if (!element.json.isObject() && !element.json.isNull()) {
        element.report(Kind::elementType, "", "is " + typeName(element.json) + ", not an object");
        return false;
    }
    if (element.json["name"].isString())
        element.entry.name = element.json["name"].asString();
    if (element.json.isNull()) {
        element.report(Kind::oddType, "", "is null, not an object, and taken as an object without keys");
        return true;
    }
    for (const std::string& name : element.json.getMemberNames())
        checkUnknown(element, name);
    bool isConvertible = true;
    for (const Key& key : keys)
        isConvertible = checkType(element, key) && isConvertible;
    if (isConvertible)
        element.entry = makeEntry(element.json);
    return isConvertible;
}

void checkStorage(const Element& element) {
    const ConfigEntry& entry = element.entry;
    if (entry.location == "fuses")
        checkFuses(element);
    else if (entry.location != "par")
        element.report(Kind::unknownLocation, "location",
                       entry.location.empty() ? "is missing" : "unknown location " + quoted(entry.location));
    checkTranslate(element);
    if (!entry.path.empty() && entry.path.front() != '/')
        element.report(Kind::relativePath, "path", "the path " + quoted(entry.path) + " is relative");
    if (!entry.isRead && !entry.isWrite)
        element.report(Kind::noAccess, "", "is neither readable nor writable");
    if (entry.isRead && entry.isWrite && (entry.type == "u" || entry.type == "d"))
        element.report(Kind::writableNumber, "type",
                       entry.type == "u" ? "the item is writable, and numbers above 2147483647 cannot be read back"
                                         : "the item is writable, and numbers below 2.3e-308 cannot be read back");
}

} // namespace check
