#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <linux/bpf.h>
#include <linux/io_uring.h>
#include <map>
#include <memory>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

// Each attempt returns its outcome: "works", or how it was refused.

namespace {

const std::string works = "works";

/// The outcome of a system call that returns -1 on failure.
std::string outcome(long result) { return result == -1 ? std::strerror(errno) : works; }

/// A file descriptor that is closed with its scope; -1 when it could not be opened.
class Descriptor {
public:
    explicit Descriptor(int opened) : number(opened) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number != -1)
            close(number);
    }
    operator int() const { return number; }

private:
    int number;
};

std::string readFile(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char byte = 0;
    const ssize_t count = file == -1 ? -1 : read(file, &byte, 1);
    return count == 0 ? "empty" : outcome(count);
}

/// Opens the file for writing, and removes it again when it was not there before.
std::string writeFile(const std::string& path) {
    const Descriptor created(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (created != -1)
        return outcome(unlink(path.c_str()));
    if (errno != EEXIST)
        return outcome(-1);
    const Descriptor existing(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return outcome(existing);
}

std::string execute(const std::string& path) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1)
        return outcome(-1);
    const Descriptor reader(ends[0]);
    int error = 0;
    {
        const Descriptor writer(ends[1]);
        const pid_t child = fork();
        if (child == 0) {
            execl(path.c_str(), path.c_str(), nullptr);
            error = errno;
            _exit(write(writer, &error, sizeof error) == sizeof error ? 1 : 2);
        }
        waitpid(child, nullptr, 0);
    }
    // Nothing to read: the program was executed, which closed the pipe.
    return read(reader, &error, sizeof error) == 0 ? works : std::strerror(error);
}

/// Puts a copy of this program there, and executes it.
std::string executeCopy(const std::string& path) {
    {
        std::ofstream copy(path, std::ios::binary);
        copy << std::ifstream("/proc/self/exe", std::ios::binary).rdbuf();
        if (!copy.flush())
            return "cannot be written";
    }
    std::string result = chmod(path.c_str(), 0700) == -1 ? outcome(-1) : execute(path);
    unlink(path.c_str());
    return result;
}

/// Maps the program's code, as the dynamic loader does when it is told to run a program.
std::string loadCode(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file == -1 || mmap(nullptr, 1, PROT_READ | PROT_EXEC, MAP_PRIVATE, file, 0) == MAP_FAILED ? outcome(-1)
                                                                                                     : works;
}

std::string connectTo(const std::string& path) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return outcome(connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

std::string sendSignal(const std::string& process) { return outcome(kill(std::stoi(process), 0)); }

/// Has systemd run a program outside of the sandbox.
std::string startUnit(const std::string& program) {
    sd_bus* opened = nullptr;
    if (const int result = sd_bus_open_system(&opened); result < 0)
        return std::strerror(-result);
    const std::unique_ptr<sd_bus, decltype(&sd_bus_unref)> bus(opened, &sd_bus_unref);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_call_method(bus.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                       "org.freedesktop.systemd1.Manager", "StartTransientUnit", &error, nullptr, "ssa(sv)a(sa(sv))",
                       "probe-outside.service", "fail", 1, "ExecStart", "a(sasb)", 1, program.c_str(), 1,
                       program.c_str(), 0, 0);
    std::string result = error.name == nullptr ? works : error.name;
    sd_bus_error_free(&error);
    return result;
}

/// System calls that the service has no use for. Where the same call can be made so that nothing but a filter refuses
/// it, it is: as a change to what is the case already, for example.
std::string callSystem(const std::string& name) {
    static const std::map<std::string, std::function<long()>> calls{
        {"add_key", [] { return syscall(SYS_add_key, "user", "probe", "x", 1UL, -3); }},
        {"bpf",
         [] {
             bpf_attr attributes{};
             attributes.map_type = BPF_MAP_TYPE_ARRAY;
             attributes.key_size = attributes.value_size = 4;
             attributes.max_entries = 1;
             return syscall(SYS_bpf, BPF_MAP_CREATE, &attributes, sizeof attributes);
         }},
        {"chmod-setuid",
         [] {
             std::FILE* const file = std::tmpfile();
             return file == nullptr ? -1 : fchmod(fileno(file), S_ISUID | S_IRWXU);
         }},
        {"chown", [] { return fchown(Descriptor(open("/var/lib/korvaneinfod", O_RDONLY)), getuid(), getgid()); }},
        {"io_uring_setup",
         [] {
             io_uring_params parameters{};
             return syscall(SYS_io_uring_setup, 1, &parameters);
         }},
        {"mlock",
         [] {
             static int page;
             return mlock(&page, sizeof page);
         }},
        {"mmap-writable-code",
         [] {
             void* const code = mmap(nullptr, 1, PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
             return code == MAP_FAILED ? -1 : 0;
         }},
        {"personality", [] { return personality(ADDR_NO_RANDOMIZE); }},
        {"ptrace", [] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
        {"sched_setscheduler",
         [] {
             const sched_param parameters{1};
             return sched_setscheduler(0, SCHED_FIFO, &parameters);
         }},
        {"setuid-root", [] { return setuid(0); }},
        {"setuid-self", [] { return setuid(getuid()); }},
        {"socket-inet", [] { return socket(AF_INET, SOCK_DGRAM, 0); }},
        {"socket-netlink", [] { return socket(AF_NETLINK, SOCK_DGRAM, 0); }},
        {"unshare-mount", [] { return unshare(CLONE_NEWNS); }},
        {"unshare-user", [] { return unshare(CLONE_NEWUSER); }},
    };
    return outcome(calls.at(name)());
}

/// A line of the kernel's account of this process, such as "CapEff".
std::string status(const std::string& key) {
    std::ifstream lines("/proc/self/status");
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, key.size() + 2, key + ":\t") == 0)
            return line.substr(key.size() + 2);
    }
    return "missing";
}

std::string hardLimit(const std::string& resource) {
    static const std::map<std::string, __rlimit_resource_t> resources{{"core", RLIMIT_CORE}};
    rlimit limit{};
    return getrlimit(resources.at(resource), &limit) == -1 ? outcome(-1) : std::to_string(limit.rlim_max);
}

const std::map<std::string, std::function<std::string(const std::string&)>> attempts{
    {"call", callSystem},      {"connect", connectTo}, {"execute", execute}, {"execute-copy", executeCopy},
    {"limit", hardLimit},      {"load", loadCode},     {"read", readFile},   {"signal", sendSignal},
    {"start-unit", startUnit}, {"status", status},     {"write", writeFile},
};

} // namespace

/// Usage: probe ATTEMPT..., each a word and what to try it on, such as "read /etc/shadow". Prints a line for each.
/// Started in the daemon's place, it tells what its sandbox permits.
int main(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        std::istringstream words(argv[i]);
        std::string attempt;
        std::string object;
        words >> attempt >> object;
        std::cout << "probe: " << argv[i] << ": " << attempts.at(attempt)(object) << std::endl;
    }
    return EX_CONFIG; // the service is not to be restarted
}
