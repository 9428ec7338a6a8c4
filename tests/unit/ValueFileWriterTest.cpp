#include "MemoryLimit.h"
#include "Support.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

class Writer : public BoardTest {
protected:
    /// Adds an entry for a value file with the content "old" and returns its position.
    static std::uint32_t add(const std::string& path, const std::string& location = "par") {
        ConfigEntry entry;
        entry.path = path;
        entry.location = location;
        entry.content = "old";
        parser.entries.push_back(entry);
        return static_cast<std::uint32_t>(parser.entries.size() - 1);
    }

    static void expectOneMessage(const std::string& line, const std::string& text) {
        const std::vector<JournalMessage> expected{
            {3, "CODE_FILE=src/ConfigFileParser.cpp", line, "updateValueInPathFile", text}};
        EXPECT_EQ(journal::take(), expected);
    }

    static ConfigFileParser& parser;
};

ConfigFileParser& Writer::parser = *ConfigFileParser::getInstance();

TEST_F(Writer, ReplacesFileAndContent) {
    const std::string path = file("value", "7\n");
    const std::uint32_t position = add(path);
    parser.updateValueInPathFile(position, "42");
    EXPECT_EQ(bytesOf(path), "42\n");
    EXPECT_EQ(parser.entries[position].content, "42");
    EXPECT_TRUE(journal::take().empty());
}

TEST_F(Writer, LeavesNothingOfALongerOldValue) {
    const std::string path = file("value", "a long old value\nand a second line\n");
    parser.updateValueInPathFile(add(path), "x");
    EXPECT_EQ(bytesOf(path), "x\n");
}

TEST_F(Writer, EmptyValueIsASingleLineFeed) {
    const std::string path = file("value", "7\n");
    const std::uint32_t position = add(path);
    parser.updateValueInPathFile(position, "");
    EXPECT_EQ(bytesOf(path), "\n");
    EXPECT_EQ(parser.entries[position].content, "");
}

TEST_F(Writer, BytesAreWrittenAsTheyAre) {
    const std::string path = file("value", "");
    const std::uint32_t position = add(path);
    const std::string value = "a\nb\0c\r\xff"s;
    parser.updateValueInPathFile(position, value);
    EXPECT_EQ(bytesOf(path), value + "\n");
    EXPECT_EQ(parser.entries[position].content, value);
}

TEST_F(Writer, ValueWithALineFeedIsReadBackToItsFirstLine) {
    const std::string path = file("value", "");
    parser.updateValueInPathFile(add(path), "first\nsecond");
    Json::Value element;
    element["path"] = path;
    element["location"] = "par";
    EXPECT_EQ(ConfigFileParser::readValueFromPathFile(element), "first");
}

TEST_F(Writer, MissingFileIsCreatedWithTheDefaultPermissions) {
    const std::string path = folder / "new";
    const mode_t umaskBefore = umask(0026);
    parser.updateValueInPathFile(add(path), "x");
    umask(umaskBefore);
    EXPECT_EQ(bytesOf(path), "x\n");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(Writer, FuseEntryHasItsWholeFileReplaced) {
    const std::string path = file("fuses", "0123456789abcdef");
    const std::uint32_t position = add(path, "fuses");
    parser.entries[position].offset = 8;
    parser.entries[position].length = 2;
    parser.updateValueInPathFile(position, "513");
    EXPECT_EQ(bytesOf(path), "513\n");
}

TEST_F(Writer, OnlyTheEntryAtThePositionChanges) {
    const std::string first = file("first", "1\n");
    const std::string second = file("second", "2\n");
    add(first);
    add(second);
    parser.updateValueInPathFile(1, "x");
    EXPECT_EQ(bytesOf(first), "1\n");
    EXPECT_EQ(bytesOf(second), "x\n");
    EXPECT_EQ(parser.entries[0].content, "old");
    EXPECT_EQ(parser.entries[1].content, "x");
}

TEST_F(Writer, MissingFolderIsLoggedAndNothingChanges) {
    const std::uint32_t position = add(folder / "missing" / "value");
    parser.updateValueInPathFile(position, "x");
    expectOneMessage("CODE_LINE=191", "setProperty: Unable to access file");
    EXPECT_EQ(parser.entries[position].content, "old");
    EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
}

TEST_F(Writer, FolderInPlaceOfTheFileIsLoggedAndNothingChanges) {
    const std::uint32_t position = add(folder);
    parser.updateValueInPathFile(position, "x");
    expectOneMessage("CODE_LINE=191", "setProperty: Unable to access file");
    EXPECT_EQ(parser.entries[position].content, "old");
}

TEST_F(Writer, FileThatMayNotBeWrittenIsLoggedAndNothingChanges) {
    // Permissions do not stop root, but a file that is sealed cannot be emptied by anyone.
    const int sealed = memfd_create("sealed", MFD_ALLOW_SEALING);
    ASSERT_EQ(write(sealed, "7\n", 2), 2);
    ASSERT_EQ(fcntl(sealed, F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const std::string path = "/proc/self/fd/" + std::to_string(sealed);
    const std::uint32_t position = add(path);
    parser.updateValueInPathFile(position, "x");
    expectOneMessage("CODE_LINE=191", "setProperty: Unable to access file");
    EXPECT_EQ(parser.entries[position].content, "old");
    EXPECT_EQ(bytesOf(path), "7\n");
    close(sealed);
}

TEST_F(Writer, FileThatCanBeOpenedOnlyOnceIsLoggedAndLeftEmpty) {
    // The limit of open files leaves room for the first stream alone.
    const std::string path = file("value", "7\n");
    const std::uint32_t position = add(path);
    const int lowest = dup(0);
    close(lowest);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit oneMore{static_cast<rlim_t>(lowest) + 1, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &oneMore), 0);
    parser.updateValueInPathFile(position, "x");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    expectOneMessage("CODE_LINE=186", "setProperty: Unable to open file");
    EXPECT_EQ(bytesOf(path), "");
    EXPECT_EQ(parser.entries[position].content, "old");
}

TEST_F(Writer, FailedWriteIsNotNoticedAndTheContentChanges) {
    const std::uint32_t position = add("/dev/full");
    parser.updateValueInPathFile(position, "x");
    EXPECT_TRUE(journal::take().empty());
    EXPECT_EQ(parser.entries[position].content, "x");
}

TEST_F(Writer, ExceptionIsLoggedAndSwallowed) {
    const std::string path = file("value", "7\n");
    const std::uint32_t position = add(path);
    const std::string value(std::size_t{2} << 20, 'x');
    memory_limit::largeAllocationsFail = true;
    parser.updateValueInPathFile(position, value);
    memory_limit::largeAllocationsFail = false;
    expectOneMessage("CODE_LINE=196", "File Write Exception");
    EXPECT_EQ(bytesOf(path), value + "\n");
    EXPECT_EQ(parser.entries[position].content, "old");
}

} // namespace
