#include "SeekLog.h"
#include "Support.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

using namespace std::string_literals;

namespace {

class ValueFile : public BoardTest {
protected:
    /// Reads an element whose value file has these bytes; `keys` are the element's other members, in JSON.
    std::string read(const std::string& bytes, const std::string& keys) { return readPath(file("value", bytes), keys); }

    static std::string readPath(const std::string& path, const std::string& keys) {
        Json::Value element = json("{" + keys + "}");
        element["path"] = path;
        return ConfigFileParser::readValueFromPathFile(element);
    }

    static std::string fuses(const std::string& offset, std::uint32_t length, const std::string& more = "") {
        return R"("location": "fuses", "offset": )" + offset + R"(, "length": )" + std::to_string(length) + more;
    }
};

constexpr auto par = R"("location": "par")";

using ParFile = ValueFile;

TEST_F(ParFile, FirstLineIsTheValueAndACarriageReturnIsKept) { EXPECT_EQ(read("abc\r\nxyz", par), "abc\r"); }
TEST_F(ParFile, EmptyFileIsTheEmptyText) { EXPECT_EQ(read("", par), ""); }
TEST_F(ParFile, FileWithoutALineFeedIsTheValueWhole) { EXPECT_EQ(read("123", par), "123"); }
TEST_F(ParFile, EmptyFirstLineIsTheEmptyText) { EXPECT_EQ(read("\nsecond\n", par), ""); }
TEST_F(ParFile, BlanksAndNulBytesAreKept) { EXPECT_EQ(read("  a\0b \t\nx"s, par), "  a\0b \t"s); }
TEST_F(ParFile, BytesAreNotInterpreted) { EXPECT_EQ(read("\xff\xfe\x80\n", par), "\xff\xfe\x80"); }

TEST_F(ParFile, LongLineIsReadWhole) {
    const std::string line(100000, 'x');
    EXPECT_EQ(read(line + "\n", par), line);
}

TEST_F(ParFile, IsNeverTranslated) {
    EXPECT_EQ(read("1\n", R"("location": "par", "translate": {"1": "one", "*": "other"})"), "1");
    EXPECT_EQ(read("1\n", R"("location": "par", "translate": "of the wrong kind")"), "1");
}

TEST_F(ParFile, OffsetAndLengthAreIgnored) {
    EXPECT_EQ(read("abcdef\n", R"("location": "par", "offset": "abc", "length": 2)"), "abcdef");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(ParFile, MissingFileOrFolderInItsPlaceIsTheEmptyText) {
    EXPECT_EQ(readPath(folder / "missing", par), "");
    EXPECT_EQ(readPath(folder, par), "");
    EXPECT_EQ(readPath("", par), "");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(ParFile, PathMayBeANumber) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    file("5", "five\n");
    EXPECT_EQ(ConfigFileParser::readValueFromPathFile(json(R"({"path": 5, "location": "par"})")), "five");
    std::filesystem::current_path(before);
}

using UnknownLocation = ValueFile;

TEST_F(UnknownLocation, IsTheEmptyText) {
    for (const char* location : {"\"\"", "\"PAR\"", "\"Fuses\"", "\"par \"", "\"eeprom\"", "null", "1"})
        EXPECT_EQ(read("abc\n", std::string(R"("offset": "abc", "length": 2, "location": )") + location), "");
    EXPECT_EQ(read("abc\n", ""), "");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(UnknownLocation, StillOpensTheFile) {
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Each side's open waits for the other's.
    std::thread writer([&] { close(open(fifo.c_str(), O_WRONLY | O_CLOEXEC)); });
    EXPECT_EQ(readPath(fifo, R"("location": "eeprom")"), "");
    writer.join();
}

using ShortFuse = ValueFile;

TEST_F(ShortFuse, UnalignedValueIsLittleEndianAndMasked) {
    const std::string bytes = "....\x99\x98\x34\x12\xAB\x00"s;
    EXPECT_EQ(read(bytes, fuses("6", 2)), "4660");
}

TEST_F(ShortFuse, LengthKeepsTheLowBytes) {
    const std::string bytes = "\x01\x02\x03\x04";
    EXPECT_EQ(read(bytes, fuses("0", 1)), "1");
    EXPECT_EQ(read(bytes, fuses("0", 2)), "513");
    EXPECT_EQ(read(bytes, fuses("0", 3)), "197121");
    EXPECT_EQ(read(bytes, fuses("0", 4)), "67305985");
}

TEST_F(ShortFuse, IsUnsigned) {
    EXPECT_EQ(read("\xff\xff\xff\xff", fuses("0", 4)), "4294967295");
    EXPECT_EQ(read("\x00\x00\x00\x80"s, fuses("0", 4)), "2147483648");
    EXPECT_EQ(read("\xff\xff\xff\xff", fuses("0", 1)), "255");
}

TEST_F(ShortFuse, LengthZeroIsZeroAndIsTranslated) {
    EXPECT_EQ(read("\x01\x02\x03\x04", fuses("0", 0)), "0");
    EXPECT_EQ(read("\x01\x02\x03\x04", R"("location": "fuses")"), "0");
    EXPECT_EQ(read("\x01\x02\x03\x04", fuses("0", 0, R"(, "translate": {"0": "none"})")), "none");
}

TEST_F(ShortFuse, EveryOffsetIsReachedByWords) {
    std::string bytes;
    for (char byte = 0; byte < 16; ++byte)
        bytes += byte;
    for (std::int64_t offset = 0; offset < 16; ++offset) {
        seek_log::take();
        EXPECT_EQ(read(bytes, fuses(std::to_string(offset), 1)), std::to_string(offset));
        EXPECT_EQ(seek_log::take(), std::vector<std::int64_t>{offset / 4 * 4});
    }
}

TEST_F(ShortFuse, OffsetIsTextInDecimalOctalOrHexadecimal) {
    std::string bytes;
    for (char byte = 0; byte < 32; ++byte)
        bytes += byte;
    EXPECT_EQ(read(bytes, fuses(R"("0x5")", 1)), "5");
    EXPECT_EQ(read(bytes, fuses(R"("010")", 1)), "8");
    EXPECT_EQ(read(bytes, fuses(R"("10")", 1)), "10");
    EXPECT_EQ(read(bytes, fuses("16", 1)), "16");
    EXPECT_EQ(read(bytes, fuses(R"("")", 1)), "0");
    EXPECT_EQ(read(bytes, fuses("null", 1)), "0");
    EXPECT_EQ(read(bytes, R"("location": "fuses", "length": 1)"), "0");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(ShortFuse, RejectedOffsetIsZeroWithAMessage) {
    EXPECT_EQ(read("\x07\x08", fuses(R"("abc")", 1)), "7");
    const std::vector<JournalMessage> expected{{3, "CODE_FILE=src/ConfigFileParser.cpp", "CODE_LINE=210", "convert",
                                                "Invalid-Argument: could not convert value: abc"}};
    EXPECT_EQ(journal::take(), expected);
}

TEST_F(ShortFuse, WhitespaceBytesCount) {
    EXPECT_EQ(read("\x20\x0a\x09\x0d", fuses("0", 4)), std::to_string(0x0d090a20));
}

TEST_F(ShortFuse, BytesBeyondTheEndAreZero) {
    EXPECT_EQ(read("....\x07", fuses("4", 1)), "7");
    EXPECT_EQ(read("....\x07", fuses("4", 4)), "7");
    EXPECT_EQ(read("....\x01\x02\x03", fuses("5", 4)), "770");
    EXPECT_EQ(read("....", fuses("4", 4)), "0");
    EXPECT_EQ(read("....", fuses("5", 1)), "0");
    EXPECT_EQ(read("....", fuses("1000", 2)), "0");
    EXPECT_EQ(read("", fuses("0", 4)), "0");
}

TEST_F(ShortFuse, MissingFileReadsAsZeroAndIsTranslated) {
    EXPECT_EQ(readPath(folder / "missing", fuses("0", 4)), "0");
    EXPECT_EQ(readPath(folder / "missing", fuses("0", 4, R"(, "translate": {"*": "blank"})")), "blank");
    EXPECT_EQ(readPath(folder, fuses("0", 4)), "0");
}

TEST_F(ShortFuse, OffsetsPast31BitsAreReachedInASparseFile) {
    const std::string path = file("sparse", "");
    std::filesystem::resize_file(path, 0xFFFFFFFFULL);
    std::ofstream(path, std::ios::binary | std::ios::app) << '\x2a';
    EXPECT_EQ(readPath(path, fuses(R"("0xFFFFFFFF")", 1)), "42");
    EXPECT_EQ(readPath(path, fuses(R"("-1")", 1)), "42");          // the low 32 bits of -1
    EXPECT_EQ(readPath(path, fuses(R"("0x1FFFFFFFF")", 1)), "42"); // the low 32 bits
}

using LongFuse = ValueFile;

TEST_F(LongFuse, IsLowerCaseHexadecimalInFileOrder) {
    EXPECT_EQ(read("\x00\x01\xAB\xCD\xEF\xff"s, fuses("0", 6)), "0001abcdefff");
}

TEST_F(LongFuse, FiveBytesAreTheFirstThatAreHexadecimal) {
    EXPECT_EQ(read("\x01\x02\x03\x04\x05", fuses("0", 4)), "67305985");
    EXPECT_EQ(read("\x01\x02\x03\x04\x05", fuses("0", 5)), "0102030405");
}

TEST_F(LongFuse, WhitespaceBytesAreSkippedAndTheNextBytesTaken) {
    EXPECT_EQ(read("\x41\x0A\x42\x43\x44\x45", fuses("0", 5)), "4142434445");
    EXPECT_EQ(read("\x00\x11\x20\x33\x44\x55\x66\x77\x88"s, fuses("0", 8)), "0011334455667788");
    EXPECT_EQ(read("\x09\x0A\x0B\x0C\x0D\x20\x01\x02\x03\x04\x05", fuses("0", 5)), "0102030405");
}

TEST_F(LongFuse, NoOtherByteIsSkipped) {
    std::string bytes;
    std::string expected;
    for (int byte = 0; byte < 256; ++byte) {
        if ((byte >= 0x09 && byte <= 0x0d) || byte == 0x20)
            continue;
        bytes += static_cast<char>(byte);
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(byte));
        expected += digits.data();
    }
    EXPECT_EQ(read(bytes, fuses("0", static_cast<std::uint32_t>(bytes.size()))), expected);
}

TEST_F(LongFuse, WhitespaceBytesBeforeAnUnalignedOffsetCount) {
    EXPECT_EQ(read("    \x20\x20\x03\x04\x05\x06\x07", fuses("6", 5)), "0304050607");
    EXPECT_EQ(read("    \x01\x02\x20\x04\x05\x06\x07\x08", fuses("5", 5)), "0204050607");
}

TEST_F(LongFuse, LastByteIsRepeatedPastTheEnd) {
    EXPECT_EQ(read("\x01\x02\x03", fuses("0", 6)), "010203030303");
    EXPECT_EQ(read("\x01\x02\x20", fuses("0", 5)), "0102020202");
}

TEST_F(LongFuse, IsAllZerosWhenNothingCanBeRead) {
    EXPECT_EQ(read("", fuses("0", 5)), "0000000000");
    EXPECT_EQ(read("   \n", fuses("0", 5)), "0000000000");
    EXPECT_EQ(read("abcdef", fuses("7", 5)), "0000000000");
    EXPECT_EQ(readPath(folder / "missing", fuses("0", 5)), "0000000000");
    EXPECT_EQ(readPath(folder, fuses("0", 5)), "0000000000");
}

TEST_F(LongFuse, IsTranslatedByItsDigits) {
    const std::string table = R"(, "translate": {"0102030aff": "known", "*": "foreign"})";
    EXPECT_EQ(read("\x01\x02\x03\x0a\x0b", fuses("0", 5, table)), "foreign");
    EXPECT_EQ(read("\x01\x02\x03\xaf\xff", fuses("0", 5, R"(, "translate": {"010203afff": "known"})")), "known");
    EXPECT_EQ(read("\x01\x02\x03\xaf\xff", fuses("0", 5, R"(, "translate": {"010203AFFF": "known"})")), "010203afff");
}

using FuseElement = ValueFile;

TEST_F(FuseElement, OfTheWrongJsonTypeRaises) {
    for (const char* keys : {
             R"("location": [])",
             R"("location": {})",
             R"("location": "fuses", "offset": [])",
             R"("location": "fuses", "offset": {})",
             R"("location": "fuses", "length": "4")",
             R"("location": "fuses", "length": -1)",
             R"("location": "fuses", "length": 4294967296)",
             R"("location": "fuses", "length": [])",
             R"("location": "fuses", "translate": "x")",
             R"("location": "fuses", "translate": ["x"])",
         })
        EXPECT_THROW(read("abcd", keys), Json::LogicError) << keys;
    EXPECT_THROW(ConfigFileParser::readValueFromPathFile(json(R"({"path": {}})")), Json::LogicError);
    EXPECT_THROW(ConfigFileParser::readValueFromPathFile(json(R"("text")")), Json::LogicError);
}

TEST_F(FuseElement, OfNullIsAnUnknownLocation) {
    EXPECT_EQ(ConfigFileParser::readValueFromPathFile(Json::Value()), "");
}

TEST_F(FuseElement, LengthMayBeANumberOfAnotherKind) {
    EXPECT_EQ(read("\x01\x02", R"("location": "fuses", "length": 2.0)"), "513");
    EXPECT_EQ(read("\x01\x02", R"("location": "fuses", "length": true)"), "1");
    EXPECT_EQ(read("\x01\x02", R"("location": "fuses", "length": null)"), "0");
}

} // namespace
