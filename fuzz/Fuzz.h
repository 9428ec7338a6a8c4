#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Called once per input, by libFuzzer or by the replay of the corpus. Returns 0 always.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Called once, before the first input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

/// What the fuzz targets share.
namespace fuzz {

/// Aborts the program, which is how a fuzz target tells of a fault. @param property what does not hold
[[noreturn]] void fail(const char* property);

/// Fails when a property does not hold.
inline void require(bool holds, const char* property) {
    if (!holds)
        fail(property);
}

/// A file in memory, so that value files cost neither a disk nor names; kept until the process ends.
class MemoryFile {
public:
    /// Creates an empty file. @param descriptor the wanted file descriptor, which makes the path a fixed one.
    explicit MemoryFile(int descriptor);

    /// Path by which this process can open the file: "/proc/self/fd/" and the descriptor.
    const std::string& path() const { return name; }
    /// Replaces the whole content.
    void write(std::string_view content) const;
    /// Returns the whole content.
    std::string read() const;

private:
    int fd;
    std::string name;
};

/// Takes numbers off the front of an input; behind its end everything is zero.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size);

    std::uint8_t byte();      ///< the next byte
    std::uint16_t halfWord(); ///< the next two bytes, little-endian
    std::uint32_t word();     ///< the next four bytes, little-endian
    std::string rest() const; ///< everything that has not been taken

private:
    std::string_view left;
};

} // namespace fuzz
