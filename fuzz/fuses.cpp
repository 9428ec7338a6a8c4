// Any bytes, offset, length and table through the value reader, against a model that indexes a byte string.

#include "ConfigFileParser.h"
#include "Fuzz.h"
#include "JournalCapture.h"

#include <json/json.h>
#include <sstream>

namespace {

constexpr int valueDescriptor = 100;

/// What `>>` skips.
bool isBlank(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

std::string modelNumber(const std::string& file, std::uint64_t offset, std::uint32_t length) {
    std::uint64_t number = 0;
    std::uint64_t weight = 1;
    for (std::uint32_t i = 0; i < length; ++i, weight *= 256)
        if (offset + i < file.size())
            number += weight * static_cast<unsigned char>(file[static_cast<std::size_t>(offset + i)]);
    std::string digits;
    do
        digits.insert(digits.begin(), static_cast<char>('0' + number % 10));
    while ((number /= 10) != 0);
    return digits;
}

std::string modelDigits(const std::string& file, std::size_t offset, std::uint32_t length) {
    static const char* const digit = "0123456789abcdef";
    std::string digits;
    unsigned char last = 0;
    while (digits.size() < std::size_t{2} * length) {
        while (offset < file.size() && isBlank(file[offset]))
            ++offset;
        if (offset < file.size())
            last = static_cast<unsigned char>(file[offset++]);
        digits += digit[last / 16];
        digits += digit[last % 16];
    }
    return digits;
}

/// The text of an offset in one of the ways that the configuration allows.
Json::Value offsetValue(unsigned way, std::uint32_t offset) {
    std::ostringstream text;
    switch (way) {
    case 0:
        return offset;
    case 1:
        text << "0x" << std::hex << offset;
        break;
    case 2:
        text << '0' << std::oct << offset;
        break;
    case 3: // only the low 32 bits count
        text << std::int64_t{offset} - 0x100000000LL;
        break;
    default:
        text << ' ' << offset << " trailing";
    }
    return text.str();
}

/// Fills the table in one of its ways and returns the text to be published.
std::string addTable(Json::Value& element, unsigned way, const std::string& raw) {
    Json::Value& table = element["translate"]; // null: no table
    switch (way) {
    case 0:
        return raw;
    case 1:
        table[raw] = "own";
        table["*"] = "other";
        return "own";
    case 2:
        table[raw] = 7;
        table["*"] = "other";
        return "other";
    case 3:
        table[raw + "0"] = "foreign";
        table["*"] = "other";
        return "other";
    case 4:
        table[raw] = Json::Value(Json::arrayValue);
        table["*"] = true;
        return raw;
    default:
        table = Json::Value(Json::objectValue);
        return raw;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::MemoryFile valueFile(valueDescriptor);
    fuzz::Input input(data, size);
    const unsigned kind = input.byte();
    const unsigned ways = input.byte();
    std::uint32_t offset = input.word();
    const std::uint32_t length = input.halfWord() % 512;
    const std::string file = input.rest();
    if (kind & 4U) // most offsets are far behind any file; keep half of them near it
        offset %= static_cast<std::uint32_t>(file.size()) + 8;
    valueFile.write(file);

    Json::Value element;
    element["path"] = valueFile.path();
    element["offset"] = offsetValue(ways % 8, offset);
    element["length"] = length;
    std::string expected;
    switch (kind % 4) {
    case 0:
        element["location"] = "par";
        element["translate"][file] = "never";
        expected = file.substr(0, file.find('\n'));
        break;
    case 1:
        element["location"] = "Fuses";
        break;
    default: {
        element["location"] = "fuses";
        const std::string raw = length <= 4 ? modelNumber(file, offset, length) : modelDigits(file, offset, length);
        expected = addTable(element, ways / 8 % 8, raw);
    }
    }
    const Json::Value before = element;
    fuzz::require(ConfigFileParser::readValueFromPathFile(element) == expected, "the value is the one of the model");
    fuzz::require(element == before, "the element is left as it was");
    fuzz::require(valueFile.read() == file, "the file is left as it was");
    fuzz::require(journal::take().empty(), "a valid element gives no message");
    return 0;
}
