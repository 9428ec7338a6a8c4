#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <giomm.h>
#include <iostream>
#include <sys/mman.h>
#include <unistd.h>

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    Glib::init();
    Gio::init();
    g_log_set_always_fatal(G_LOG_LEVEL_CRITICAL); // what GLib calls a programmer's error is a fault of ours
    std::cout.setstate(std::ios::badbit);         // the listing is neither wanted nor free
    return 0;
}

void fuzz::fail(const char* property) {
    std::fprintf(stderr, "Does not hold: %s\n", property);
    std::abort();
}

fuzz::MemoryFile::MemoryFile(int descriptor) : fd(descriptor), name("/proc/self/fd/" + std::to_string(descriptor)) {
    const int created = memfd_create("value", 0);
    require(created != -1 && dup2(created, fd) == fd, "a file in memory can be created");
    close(created);
}

void fuzz::MemoryFile::write(std::string_view content) const {
    const bool written =
        ftruncate(fd, 0) == 0 && pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size());
    require(written, "a file in memory can be written");
}

std::string fuzz::MemoryFile::read() const {
    const off_t size = lseek(fd, 0, SEEK_END);
    std::string content(static_cast<std::size_t>(size), '\0');
    require(pread(fd, content.data(), content.size(), 0) == size, "a file in memory can be read");
    return content;
}

fuzz::Input::Input(const std::uint8_t* data, std::size_t size) : left(reinterpret_cast<const char*>(data), size) {}

std::uint8_t fuzz::Input::byte() {
    if (left.empty())
        return 0;
    const auto first = static_cast<std::uint8_t>(left.front());
    left.remove_prefix(1);
    return first;
}

std::uint16_t fuzz::Input::halfWord() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | unsigned{byte()} << 8);
}

std::uint32_t fuzz::Input::word() {
    const std::uint32_t low = halfWord();
    return low | std::uint32_t{halfWord()} << 16;
}

std::string fuzz::Input::rest() const { return std::string(left); }
