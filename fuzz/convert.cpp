// Any text through `convert`, against a model in integers that are too wide to overflow.

#include "ConfigFileParser.h"
#include "Fuzz.h"
#include "JournalCapture.h"

#include <cstring>
#include <limits>

namespace {

__extension__ using Wide = __int128;

struct Expected {
    std::uint32_t number;
    const char* complaint; ///< start of the journal message; null: none
};

int digitOf(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return std::numeric_limits<int>::max();
}

/// @param c points into a text that ends with NUL
Expected model(const char* c) {
    while (*c != '\0' && std::strchr(" \t\n\v\f\r", *c) != nullptr)
        ++c;
    const bool negative = *c == '-';
    if (*c == '-' || *c == '+')
        ++c;
    int base = *c == '0' ? 8 : 10;
    if (c[0] == '0' && (c[1] == 'x' || c[1] == 'X') && digitOf(c[2]) < 16) {
        base = 16;
        c += 2;
    }
    if (digitOf(*c) >= base)
        return {0, "Invalid-Argument: could not convert value: "};
    const Wide limit = Wide{std::numeric_limits<std::int64_t>::max()} + (negative ? 1 : 0);
    Wide magnitude = 0;
    for (; digitOf(*c) < base && magnitude <= limit; ++c)
        magnitude = magnitude * base + digitOf(*c);
    if (magnitude > limit)
        return {0, "Out-Of-Range: could not convert value: "};
    const Wide number = negative ? -magnitude : magnitude;
    constexpr Wide range = Wide{1} << 32;
    return {static_cast<std::uint32_t>((number % range + range) % range), nullptr};
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Expected expected = text.empty() ? Expected{0, nullptr} : model(text.c_str());
    fuzz::require(ConfigFileParser::convert(text) == expected.number, "the number is the low 32 bits of the text's");
    const std::vector<JournalMessage> messages = journal::take();
    fuzz::require(messages.size() == (expected.complaint == nullptr ? 0 : 1), "a message for a rejected text alone");
    if (expected.complaint != nullptr)
        fuzz::require(messages.front().text == expected.complaint + text.substr(0, text.find('\0')),
                      "the message names the reason and the text");
    return 0;
}
