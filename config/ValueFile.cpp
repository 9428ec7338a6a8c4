#include "ValueFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <linux/openat2.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace check {

namespace {

/// A file descriptor that is closed at the end of its scope; negative: none, and errno tells why.
class Descriptor {
public:
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor() {
        if (number >= 0)
            close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;

    int get() const { return number; }
    bool isOpen() const { return number >= 0; }

private:
    int number;
};

constexpr const char* waitingFile = "a file whose reader has to wait";

std::string procPath(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

/// Finds the file without opening it; an image's own links are followed inside the image.
Descriptor locate(const std::string& root, const std::string& path) {
    if (root.empty())
        return Descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
    const Descriptor directory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen())
        return Descriptor(-1);
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT;
    return Descriptor(static_cast<int>(syscall(SYS_openat2, directory.get(), path.c_str(), &how, sizeof how)));
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// Fills in what there is instead of a regular file.
void describeOther(mode_t mode, ValueFile& file) {
    switch (mode & static_cast<mode_t>(S_IFMT)) {
    case S_IFDIR:
        file.error = EISDIR;
        break;
    case S_IFSOCK:
        file.error = ENXIO;
        break;
    case S_IFIFO:
        file.notRegular = "a FIFO";
        break;
    default:
        file.notRegular = "a device";
    }
}

bool isAtRuntimeOnly(const std::string& root, std::string_view path) {
    if (root.empty())
        return false;
    constexpr std::array<std::string_view, 4> folders{"/sys/", "/proc/", "/dev/", "/run/"};
    return std::any_of(folders.begin(), folders.end(),
                       [&](std::string_view folder) { return path.substr(0, folder.size()) == folder; });
}

/// Reads on from the start of the copy until there is enough, at most to the limit.
void readUntil(int descriptor, ValueFile& file, const std::function<bool(std::string_view)>& isEnough) {
    std::array<char, 65536> buffer{};
    while (file.bytes.size() < ValueFile::limit) {
        const auto position = static_cast<off_t>(file.start + file.bytes.size());
        const ssize_t count = pread(descriptor, buffer.data(), buffer.size(), position);
        if (count < 0) {
            if (errno == EAGAIN)
                file.notRegular = waitingFile;
            else
                file.error = errno;
            return;
        }
        if (count == 0)
            return;
        const std::string_view piece(buffer.data(), static_cast<std::size_t>(count));
        file.bytes += piece;
        if (isEnough(piece))
            return;
    }
}

ValueFile read(const std::string& root, const std::string& path, std::size_t start,
               const std::function<bool(std::string_view)>& isEnough) {
    ValueFile file;
    file.start = start;
    file.isAtRuntimeOnly = isAtRuntimeOnly(root, path);
    if (file.isAtRuntimeOnly)
        return file;
    const Descriptor located = locate(root, path);
    struct stat status {};
    if (!located.isOpen() || fstat(located.get(), &status) != 0) {
        file.error = errno;
        return file;
    }
    if (!S_ISREG(status.st_mode)) {
        describeOther(status.st_mode, file);
        return file;
    }
    // The service manager puts such a file over what it hides from a service.
    if ((status.st_mode & 07777U) == 0 && status.st_size == 0) {
        file.error = EACCES;
        return file;
    }
    // Kernel files count as regular, too, and some of them make their readers wait.
    const Descriptor opened(open(procPath(located.get()).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (opened.isOpen())
        readUntil(opened.get(), file, isEnough);
    else if (errno == EWOULDBLOCK) // another process has a lease on it
        file.notRegular = waitingFile;
    else
        file.error = errno;
    return file;
}

} // namespace

bool isSkipped(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

ValueFile ValueFile::readAll(const std::string& root, const std::string& path) {
    return read(root, path, 0, [](std::string_view /*piece*/) { return false; });
}

ValueFile ValueFile::readLine(const std::string& root, const std::string& path) {
    return read(root, path, 0, [](std::string_view piece) { return piece.find('\n') != std::string_view::npos; });
}

ValueFile ValueFile::readBytes(const std::string& root, const std::string& path, std::uint32_t offset,
                               std::size_t count) {
    return read(root, path, offset, [missing = count](std::string_view piece) mutable {
        const auto skipped = std::count_if(piece.begin(), piece.end(), isSkipped);
        missing -= std::min(missing, piece.size() - static_cast<std::size_t>(skipped));
        return missing == 0;
    });
}

std::string ValueFile::writeObstacle(const std::string& root, const std::string& path) {
    if (check::isAtRuntimeOnly(root, path))
        return {};
    if (const Descriptor located = locate(root, path); located.isOpen()) {
        struct stat status {};
        const bool isDirectory = fstat(located.get(), &status) == 0 && S_ISDIR(status.st_mode);
        return isDirectory ? std::generic_category().message(EISDIR) : "";
    }
    if (errno != ENOENT)
        return std::generic_category().message(errno);
    const std::string folder = folderOf(path);
    if (path.empty() || !locate(root, folder).isOpen())
        return std::generic_category().message(ENOENT);
    return {};
}

std::string ValueFile::permissionObstacle(const std::string& path) {
    const std::string folder = folderOf(path);
    const bool exists = faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) == 0;
    const int result = exists ? faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS)
                              : faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS);
    return result == 0 ? "" : std::generic_category().message(errno);
}

MemoryFile::MemoryFile(const ValueFile& file) : descriptor(memfd_create("value", MFD_CLOEXEC)) {
    std::size_t written = 0;
    while (descriptor >= 0 && written < file.bytes.size()) {
        const ssize_t count = pwrite(descriptor, file.bytes.data() + written, file.bytes.size() - written,
                                     static_cast<off_t>(file.start + written));
        if (count <= 0)
            break;
        written += static_cast<std::size_t>(count);
    }
    if (descriptor < 0 || written < file.bytes.size()) {
        close(descriptor);
        throw std::system_error(errno, std::generic_category(), "cannot copy a value file");
    }
}

MemoryFile::~MemoryFile() { close(descriptor); }

std::string MemoryFile::path() const { return procPath(descriptor); }

} // namespace check
