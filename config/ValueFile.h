#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace check {

/// Whether the daemon passes over this byte in values of more than four bytes.
bool isSkipped(char byte);

/// What was found at the path of a value file, and a bounded copy of the bytes that the daemon would read there.
///
/// Nothing but regular files is opened, none is waited for, and no more than `limit` bytes are read, so that a check
/// always ends and touches no device.
struct ValueFile {
    static constexpr std::size_t limit = std::size_t{5} << 20U; ///< more than the daemon has the memory for

    int error = 0;                ///< errno of the failure to find or read the file; 0: read
    std::string notRegular;       ///< what the file is when reading it may block or never end
    bool isAtRuntimeOnly = false; ///< an image was asked for, and the path is on a board's virtual file systems
    std::size_t start = 0;        ///< offset of `bytes` in the file
    std::string bytes;            ///< up to the end of the file, of what the daemon reads, or to the limit

    /// Reads all of it.
    static ValueFile readAll(const std::string& root, const std::string& path);

    /// Reads the first line, line feed included.
    static ValueFile readLine(const std::string& root, const std::string& path);

    /// Reads at an offset until `count` bytes that are no whitespace are read.
    static ValueFile readBytes(const std::string& root, const std::string& path, std::uint32_t offset,
                               std::size_t count);

    /// Returns why a Set could not create or overwrite the file: an error text, or empty when it could.
    static std::string writeObstacle(const std::string& root, const std::string& path);

    /// Returns why this process itself could not write the file, or create it: an error text, or empty when it could.
    static std::string permissionObstacle(const std::string& path);
};

/// A temporary file in memory that holds a copy of the bytes at the same offset, for the daemon's reader.
class MemoryFile {
public:
    explicit MemoryFile(const ValueFile& file);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    MemoryFile(MemoryFile&&) = delete;
    MemoryFile& operator=(MemoryFile&&) = delete;

    /// Returns the path under which this process can open the file.
    std::string path() const;

private:
    int descriptor;
};

} // namespace check
