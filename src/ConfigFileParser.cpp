#include "ConfigFileParser.h"

#include "Journal.h"

#include <array>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <json/json.h>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

/// Largest "fuses" value, in bytes, that is published as a number; longer ones are published as hexadecimal digits.
constexpr std::uint32_t maxNumberLength = 4;

ConfigEntry makeEntry(const Json::Value& element, std::string content) {
    ConfigEntry entry;
    entry.name = element["name"].asString();
    entry.interface = element["interface"].asString();
    entry.objectPath = element["objectpath"].asString();
    entry.path = element["path"].asString();
    entry.location = element["location"].asString();
    entry.offset = ConfigFileParser::convert(element["offset"].asString());
    entry.length = element["length"].asUInt();
    entry.type = element["type"].asString();
    entry.content = std::move(content);
    entry.isRead = element["read"].asBool();
    entry.isWrite = element["write"].asBool();
    entry.isSignal = element["signal"].asBool();
    return entry;
}

/// Fuse devices are read in words, so the seek goes to a multiple of four and the rest of the way is read.
void seekByWords(std::ifstream& file, std::uint32_t offset) {
    constexpr std::uint32_t wordSize = 4;
    file.seekg(static_cast<std::streamoff>(offset / wordSize * wordSize));
    file.ignore(static_cast<std::streamsize>(offset % wordSize));
}

std::string readNumber(std::ifstream& file, std::uint32_t length) {
    std::array<char, maxNumberLength> bytes{};
    file.read(bytes.data(), bytes.size()); // always a whole word, whatever the length
    std::uint32_t number = 0;
    for (std::uint32_t i = 0; i < length; ++i)
        number |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    return std::to_string(number);
}

std::string readHexDigits(std::ifstream& file, std::uint32_t length) {
    std::ostringstream digits;
    digits << std::hex << std::setfill('0');
    char byte = 0;
    for (std::uint32_t i = 0; i < length; ++i) {
        // Formatted on purpose: whitespace bytes are skipped, and at the end of the file the last byte is repeated.
        // Published identifiers depend on it.
        file >> byte;
        digits << std::setw(2) << unsigned{static_cast<unsigned char>(byte)};
    }
    return digits.str();
}

} // namespace

std::string ConfigEntry::toString() const {
    std::ostringstream dump;
    dump << "name:       " << name << std::endl;
    dump << "interface:  " << interface << std::endl;
    dump << "objectPath: " << objectPath << std::endl;
    dump << "location:   " << location << std::endl;
    dump << "offset:     0x" << std::hex << std::setw(8) << std::setfill('0') << offset << std::endl;
    dump << "length:     " << length << std::endl; // still hexadecimal, on purpose
    dump << "type:       " << type << std::endl;
    dump << "content:    " << content << std::endl;
    dump << "isRead:     " << isRead << std::endl;
    dump << "isWrite:    " << isWrite << std::endl;
    dump << "isSignal:   " << isSignal << std::endl;
    return dump.str();
}

ConfigFileParser* ConfigFileParser::getInstance() {
    static auto* const instance = new ConfigFileParser;
    return instance;
}

bool ConfigFileParser::parseData(const std::string& fileName) {
    std::ostringstream text;
    text << std::ifstream(fileName).rdbuf(); // nothing when the file cannot be read, which then does not parse
    const std::string document = text.str();

    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value root;
    if (!reader->parse(document.data(), document.data() + document.size(), &root, nullptr)) {
        JOURNAL(LOG_ERR, 56, "parseData", "Error in parsing");
        return false;
    }

    std::cout << "#### Begin board information ####" << std::endl;
    // By index: a top-level object with members must raise here, not be walked. NOLINTNEXTLINE(modernize-loop-convert)
    for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
        const Json::Value& element = root[i];
        JOURNAL(LOG_INFO, 63, "parseData", "-------------------------------------");
        JOURNAL(LOG_INFO, 64, "parseData", "Current Entry: %s", element["name"].asString().c_str());
        JOURNAL(LOG_DEBUG, 68, "parseData", "Current Entry JSON:\n%s", element.toStyledString().c_str());
        const ConfigEntry entry = makeEntry(element, readValueFromPathFile(element));
        JOURNAL(LOG_DEBUG, 87, "parseData", "Config Entry:\n%s", entry.toString().c_str());
        entries.push_back(entry);
        std::cout << std::left << std::setw(24) << entry.name << ": " << entry.content << std::endl;
    }
    std::cout << "#### End board information ####" << std::endl;
    return true;
}

std::string ConfigFileParser::readValueFromPathFile(const Json::Value& element) {
    const std::string path = element["path"].asString();
    const std::string location = element["location"].asString();
    std::ifstream file(path, std::ios::in | std::ios::binary);
    std::string value;
    if (location == "par") {
        std::getline(file, value);
    } else if (location == "fuses") {
        const std::uint32_t offset = convert(element["offset"].asString());
        const std::uint32_t length = element["length"].asUInt();
        seekByWords(file, offset);
        value = length <= maxNumberLength ? readNumber(file, length) : readHexDigits(file, length);
        value = translateValue(element, std::move(value));
    }
    file.close();
    return value;
}

std::uint32_t ConfigFileParser::convert(const std::string& text) {
    if (text.empty())
        return 0;
    try {
        return static_cast<std::uint32_t>(std::stoll(text, nullptr, 0));
    } catch (const std::invalid_argument&) {
        JOURNAL(LOG_ERR, 210, "convert", "Invalid-Argument: could not convert value: %s", text.c_str());
    } catch (const std::out_of_range&) {
        JOURNAL(LOG_ERR, 214, "convert", "Out-Of-Range: could not convert value: %s", text.c_str());
    }
    return 0;
}

std::string ConfigFileParser::translateValue(const Json::Value& element, std::string raw) {
    const Json::Value& translate = element["translate"];
    if (translate.isNull())
        return raw;
    if (const Json::Value& own = translate[raw]; own.isString())
        return own.asString();
    if (const Json::Value& fallback = translate["*"]; fallback.isString())
        return fallback.asString();
    return raw;
}

void ConfigFileParser::updateValueInPathFile(std::uint32_t index, const std::string& value) {
    try {
        ConfigEntry& entry = entries[index];
        // Opened twice on purpose: the first stream is the access check and has already emptied the file.
        const std::ofstream accessCheck(entry.path);
        if (!accessCheck.good()) {
            JOURNAL(LOG_ERR, 191, "updateValueInPathFile", "setProperty: Unable to access file");
            return;
        }
        std::ofstream file(entry.path, std::ios::out | std::ios::trunc);
        if (!file.is_open()) {
            JOURNAL(LOG_ERR, 186, "updateValueInPathFile", "setProperty: Unable to open file");
            return;
        }
        file << value << std::endl;
        file.close();
        entry.content = value; // even after a failed write: the value is served until the next start
    } catch (...) {
        JOURNAL(LOG_ERR, 196, "updateValueInPathFile", "File Write Exception");
    }
}
