#include "ConfigFileParser.h"

#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace {

std::string lineOf(const ConfigEntry& entry, int number) {
    std::string dump = entry.toString();
    for (; number > 1; --number)
        dump.erase(0, dump.find('\n') + 1);
    return dump.substr(0, dump.find('\n'));
}

TEST(ConfigEntryDump, OfAnEmptyEntryHasElevenLines) {
    EXPECT_EQ(ConfigEntry().toString(), "name:       \n"
                                        "interface:  \n"
                                        "objectPath: \n"
                                        "location:   \n"
                                        "offset:     0x00000000\n"
                                        "length:     0\n"
                                        "type:       \n"
                                        "content:    \n"
                                        "isRead:     0\n"
                                        "isWrite:    0\n"
                                        "isSignal:   0\n");
}

TEST(ConfigEntryDump, ShowsEveryFieldButThePath) {
    ConfigEntry entry;
    entry.name = "SerialNumber";
    entry.interface = "Board";
    entry.objectPath = "Main";
    entry.path = "/never/shown";
    entry.location = "fuses";
    entry.offset = 0x1c;
    entry.length = 16;
    entry.type = "s";
    entry.content = "K-0042";
    entry.isRead = true;
    entry.isWrite = true;
    entry.isSignal = true;
    EXPECT_EQ(entry.toString(), "name:       SerialNumber\n"
                                "interface:  Board\n"
                                "objectPath: Main\n"
                                "location:   fuses\n"
                                "offset:     0x0000001c\n"
                                "length:     10\n"
                                "type:       s\n"
                                "content:    K-0042\n"
                                "isRead:     1\n"
                                "isWrite:    1\n"
                                "isSignal:   1\n");
}

TEST(ConfigEntryDump, FlagsAreIndependent) {
    ConfigEntry entry;
    entry.isWrite = true;
    EXPECT_EQ(lineOf(entry, 9), "isRead:     0");
    EXPECT_EQ(lineOf(entry, 10), "isWrite:    1");
    EXPECT_EQ(lineOf(entry, 11), "isSignal:   0");
}

TEST(ConfigEntryDump, OffsetIsEightLowerCaseHexadecimalDigits) {
    ConfigEntry entry;
    entry.offset = 32;
    EXPECT_EQ(lineOf(entry, 5), "offset:     0x00000020");
    entry.offset = 0xffffffff;
    EXPECT_EQ(lineOf(entry, 5), "offset:     0xffffffff");
    entry.offset = 0xABCDEF;
    EXPECT_EQ(lineOf(entry, 5), "offset:     0x00abcdef");
}

TEST(ConfigEntryDump, LengthIsHexadecimalWithoutPrefixAndZeros) {
    ConfigEntry entry;
    const std::vector<std::pair<std::uint32_t, const char*>> cases = {
        {9, "9"}, {10, "a"}, {16, "10"}, {255, "ff"}, {0xffffffff, "ffffffff"}};
    for (const auto& [length, digits] : cases) {
        entry.length = length;
        EXPECT_EQ(lineOf(entry, 6), std::string("length:     ") + digits);
    }
}

TEST(ConfigEntryDump, LineFeedsInTheContentAreKept) {
    ConfigEntry entry;
    entry.content = "one\ntwo\n";
    EXPECT_NE(entry.toString().find("content:    one\ntwo\n\nisRead:     0\n"), std::string::npos);
}

TEST(ConfigEntryRecord, CopiesAreIndependent) {
    ConfigEntry entry;
    entry.content = "old";
    const ConfigEntry copy = entry;
    entry.content = "new";
    EXPECT_EQ(copy.content, "old");
}

} // namespace
