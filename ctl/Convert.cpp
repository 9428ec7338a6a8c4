#include "Convert.h"

#include "Item.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <systemd/sd-bus.h>
#include <type_traits>

namespace ctl {

namespace {

[[noreturn]] void refuse(const std::string& text, const std::string& reason) {
    throw Failure("\"" + text + "\" " + reason);
}

/// The whole text has to be one number in decimal that fits.
template <typename Number> Number number(const std::string& text) {
    constexpr const char* expected = std::is_floating_point_v<Number> ? "is not a number"
                                     : std::is_signed_v<Number>       ? "is not a whole number"
                                                                      : "is not a whole number without a sign";
    Number result{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, result);
    if (error == std::errc::result_out_of_range)
        refuse(text, "is out of range");
    if (error != std::errc() || stop != end)
        refuse(text, expected);
    return result;
}

std::int32_t boolean(const std::string& text) {
    if (text != "true" && text != "false")
        refuse(text, "is neither true nor false");
    return text == "true" ? 1 : 0;
}

/// The daemon parses what it has stored as a signed number, and ends when that fails.
std::uint32_t unsignedNumber(const std::string& text) {
    const auto result = number<std::uint32_t>(text);
    if (result > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()))
        refuse(text, "is above 2147483647: the daemon could not read it back and would end");
    return result;
}

double realNumber(const std::string& text) {
    const auto result = number<double>(text);
    if (std::fpclassify(result) == FP_SUBNORMAL)
        refuse(text, "is too near to zero: the daemon could not read it back and would end");
    return result;
}

/// Whether the text is UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8(const std::string& text) {
    std::size_t following = 0;
    unsigned lowest = 0x80;
    unsigned highest = 0xBF;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (following > 0) {
            if (byte < lowest || byte > highest)
                return false;
            --following;
            lowest = 0x80;
            highest = 0xBF;
            continue;
        }
        if (byte < 0x80)
            continue;
        if (byte < 0xC2 || byte > 0xF4)
            return false;
        following = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        lowest = byte == 0xE0 ? 0xA0 : byte == 0xF0 ? 0x90 : 0x80;
        highest = byte == 0xED ? 0x9F : byte == 0xF4 ? 0x8F : 0xBF;
    }
    return following == 0;
}

std::string string(const std::string& text) {
    if (!isUtf8(text))
        throw Failure("the value is not UTF-8");
    return text;
}

} // namespace

BasicValue convert(const std::string& signature, const std::string& text) {
    switch (signature.size() == 1 ? signature.front() : '\0') {
    case 'b':
        return boolean(text);
    case 'y':
        return number<std::uint8_t>(text);
    case 'n':
        return number<std::int16_t>(text);
    case 'q':
        return number<std::uint16_t>(text);
    case 'i':
        return number<std::int32_t>(text);
    case 'u':
        return unsignedNumber(text);
    case 'x':
        return number<std::int64_t>(text);
    case 't':
        return number<std::uint64_t>(text);
    case 'd':
        return realNumber(text);
    case 's':
        return string(text);
    case 'o':
        if (sd_bus_object_path_is_valid(text.c_str()) <= 0)
            refuse(text, "is not an object path");
        return text;
    default:
        throw Failure("values of type \"" + signature + "\" cannot be given on the command line");
    }
}

std::string expectedText(const std::string& signature, const BasicValue& value) {
    if (const auto* byte = std::get_if<std::uint8_t>(&value)) { // stored in the text format of GVariant
        std::array<char, 8> text{};
        std::snprintf(text.data(), text.size(), "0x%02x", unsigned{*byte});
        return text.data();
    }
    if (const auto* text = std::get_if<std::string>(&value))
        return *text;
    if (const auto* real = std::get_if<double>(&value))
        return shortest(*real);
    if (signature == "b")
        return std::get<std::int32_t>(value) != 0 ? "true" : "false";
    return std::visit(
        [](const auto& integer) -> std::string {
            if constexpr (std::is_integral_v<std::decay_t<decltype(integer)>>)
                return std::to_string(integer);
            else
                return {};
        },
        value);
}

} // namespace ctl
