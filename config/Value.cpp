#include "Value.h"

#include "ValueFile.h"
#include "dbus/DBusServices.h"

#include <algorithm>
#include <system_error>

namespace check {

namespace {

constexpr std::uint32_t longestNumber = 4; // bytes of a fuse value that is published as a number

/// Reports fuse bytes that are not there, or that the daemon does not read.
void checkFuseBytes(const Element& element, const ValueFile& file) {
    const std::size_t length = element.entry.length;
    const std::size_t size = file.bytes.size();
    const auto inRange = file.bytes.begin() + static_cast<std::ptrdiff_t>(std::min(length, size));
    if (length <= longestNumber) {
        if (size < length)
            element.report(Kind::fuseEnd, "length",
                           std::to_string(length - size) + " of " + std::to_string(length) +
                               " bytes are past the end of " + quoted(element.entry.path));
        return;
    }
    if (const auto skipped = std::count_if(file.bytes.begin(), inRange, isSkipped); skipped != 0)
        element.report(Kind::fuseWhitespace, "length",
                       std::to_string(skipped) + " of " + std::to_string(length) + " bytes in " +
                           quoted(element.entry.path) + " are whitespace");
    const auto blanks = std::count_if(file.bytes.begin(), file.bytes.end(), isSkipped);
    if (const std::size_t usable = size - static_cast<std::size_t>(blanks); usable < length)
        element.report(Kind::fuseEnd, "length",
                       std::to_string(length - usable) + " of " + std::to_string(length) +
                           " bytes are past the end of " + quoted(element.entry.path));
}

/// Lets the daemon read the copy instead of the file.
std::string readCopy(const Element& element, const ValueFile& file) {
    const MemoryFile copy(file);
    Json::Value json = element.json;
    json["path"] = copy.path();
    return ConfigFileParser::readValueFromPathFile(json);
}

/// Reports a number of which the daemon publishes only the beginning, or something else than stands there.
void checkNumberText(const Element& element, const std::string& content, const Glib::VariantBase& published) {
    std::size_t end = 0;
    if (element.entry.type == "d")
        std::stod(content, &end);
    else
        std::stoi(content, &end);
    const bool isWhole = content.find_first_not_of(" \t\r\n", end) == std::string::npos;
    const bool isNegative = content.find('-') < end;
    if (!isWhole || (element.entry.type == "u" && isNegative))
        element.report(Kind::valuePart, "type",
                       "the value " + excerpt(content) + " is published as " + published.print().raw());
}

/// Returns false when the daemon ends over a read of the text.
bool checkText(const Element& element, const std::string& content) {
    // As far as GLib reads it, which complains of bad text aloud before the daemon ends over it.
    const bool isUtf8 = g_utf8_validate(content.c_str(), -1, nullptr) != FALSE;
    if (!isUtf8)
        element.report(Kind::valueEncoding, "type", "the value " + excerpt(content) + " is not UTF-8");
    if (content.find('\0') != std::string::npos)
        element.report(Kind::valueNul, "type", "the value " + excerpt(content) + " holds a NUL");
    return isUtf8;
}

/// Reports a file that a client's Set could not write. A salvage is made by the service itself, which so learns whether
/// it may.
void checkWriteTarget(const Element& element, const Options& options) {
    const std::string& path = element.entry.path;
    if (!element.entry.isWrite || path.empty())
        return;
    const bool isService = options.isSalvage && options.root.empty();
    if (const std::string obstacle = ValueFile::writeObstacle(options.root, path); !obstacle.empty())
        element.report(Kind::writeTarget, "path", "cannot create " + quoted(path) + ": " + obstacle);
    else if (const std::string own = isService ? ValueFile::permissionObstacle(path) : ""; !own.empty())
        element.report(Kind::writeTarget, "path", "cannot write " + quoted(path) + ": " + own);
}

} // namespace

std::optional<std::string> checkValueFile(const Element& element, const Options& options) {
    const ConfigEntry& entry = element.entry;
    const bool isFuses = entry.location == "fuses";
    if (isFuses && entry.length > largestTotal / 2)
        return std::nullopt;
    checkWriteTarget(element, options);
    const ValueFile file =
        isFuses ? ValueFile::readBytes(options.root, entry.path, entry.offset, std::max(entry.length, longestNumber))
                : ValueFile::readLine(options.root, entry.path);
    if (file.isAtRuntimeOnly)
        return std::nullopt;
    if (!file.notRegular.empty()) {
        element.report(Kind::valueFileKind, "path", quoted(entry.path) + " is " + file.notRegular);
        return std::nullopt;
    }
    if (entry.path.empty())
        element.report(isFuses ? Kind::fuseFile : Kind::valueFile, "path", "is missing");
    else if (file.error != 0)
        element.report(isFuses ? Kind::fuseFile : Kind::valueFile, "path",
                       "cannot read " + quoted(entry.path) + ": " + std::generic_category().message(file.error));
    else if (isFuses)
        checkFuseBytes(element, file);
    return readCopy(element, file);
}

bool checkValue(const Element& element, const std::string& content) {
    const std::string& type = element.entry.type;
    if (type.empty() || std::string_view("bdiu").find(type.front()) == std::string_view::npos)
        return checkText(element, content);
    try {
        const Glib::VariantBase published = dbus::DBusServices::contentToVariant(type, content);
        if (type.front() != 'b')
            checkNumberText(element, content, published);
        else if (content != "true" && content != "false")
            element.report(Kind::valueBoolean, "type", "the value " + excerpt(content) + " is published as false");
    } catch (const std::out_of_range&) {
        element.report(Kind::valueNumber, "type",
                       "the value " + excerpt(content) + " is out of range for type " + quoted(type));
        return false;
    } catch (const std::invalid_argument&) {
        element.report(Kind::valueNumber, "type",
                       content.empty() ? "there is no value, the file is missing or its first line empty"
                                       : "the value " + excerpt(content) + " does not begin with a number");
        return false;
    }
    return true;
}

} // namespace check
