#include "ValueFile.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using check::ValueFile;

class ValueFiles : public testing::Test {
protected:
    void SetUp() override {
        folder = std::filesystem::temp_directory_path() / "korvaneinfoctl-XXXXXX";
        std::string name = folder.string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(folder / name, std::ios::binary) << content;
        return folder / name;
    }

    std::filesystem::path folder;
};

TEST_F(ValueFiles, LineIsReadNotMuchFartherThanItsEnd) {
    const std::string path = file("line", "abc\n" + std::string(1U << 20U, 'x'));
    const ValueFile read = ValueFile::readLine("", path);
    EXPECT_EQ(read.bytes.substr(0, 4), "abc\n");
    EXPECT_LT(read.bytes.size(), 1U << 17U);
}

TEST_F(ValueFiles, EndlessFileIsReadToTheLimit) {
    const std::string path = file("endless", "");
    std::filesystem::resize_file(path, std::uintmax_t{1} << 36U);
    EXPECT_LE(ValueFile::readLine("", path).bytes.size(), ValueFile::limit + 65536);
    EXPECT_GE(ValueFile::readLine("", path).bytes.size(), ValueFile::limit);
}

TEST_F(ValueFiles, BytesAreReadFromTheOffsetUntilEnoughAreNoWhitespace) {
    const std::string path = file("bytes", "0123" + std::string(200000, ' ') + "x" + std::string(200000, 'y'));
    const ValueFile read = ValueFile::readBytes("", path, 4, 1);
    EXPECT_NE(read.bytes.find('x'), std::string::npos);
    EXPECT_LT(read.bytes.size(), 300000U);
    EXPECT_EQ(read.start, 4U);
}

TEST_F(ValueFiles, CopyHasTheBytesAtTheirOffset) {
    const std::string path = file("bytes", "0123456789");
    const check::MemoryFile copy(ValueFile::readBytes("", path, 6, 4));
    std::ifstream stream(copy.path(), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_EQ(content, std::string(6, '\0') + "6789");
}

TEST_F(ValueFiles, FifoIsNotOpened) {
    const std::string path = folder / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(ValueFile::readLine("", path).notRegular, "a FIFO");
    EXPECT_EQ(ValueFile::readLine("", "/dev/zero").notRegular, "a device");
}

TEST_F(ValueFiles, OtherFailuresAreErrors) {
    EXPECT_EQ(ValueFile::readLine("", folder / "missing").error, ENOENT);
    EXPECT_EQ(ValueFile::readLine("", folder).error, EISDIR);
    EXPECT_EQ(ValueFile::readLine("", "").error, ENOENT);
    EXPECT_EQ(ValueFile::readLine(folder / "missing", "/x").error, ENOENT);
}

TEST_F(ValueFiles, SkippedBytesAreThoseOfTheClassicLocale) {
    std::string skipped;
    for (int byte = 0; byte < 256; ++byte)
        if (check::isSkipped(static_cast<char>(byte)))
            skipped += static_cast<char>(byte);
    EXPECT_EQ(skipped, "\t\n\v\f\r ");
}

} // namespace
