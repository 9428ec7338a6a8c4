#include "ExitStatus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <iostream>
#include <iterator>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <syslog.h>
#include <system_error>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::chrono::seconds checkerTime(10); ///< more than the checker needs, besides what it waits for files

std::string variable(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    return value == nullptr ? "" : value;
}

/// The service manager takes single backslashes away.
void setStatus(const std::string& text) {
    std::string status = "STATUS=";
    for (const char c : text)
        status += c == '\\' ? "\\\\" : std::string(1, c);
    sd_notify(0, status.c_str());
}

void complain(const std::string& text) { std::cerr << SD_WARNING << "korvaneinfod-launch: " << text << std::endl; }

// The daemon can write in the runtime directory, too. Should it ever be in hostile hands, nothing that it leaves there
// may hang or mislead a start.

/// Returns the content of a small regular file; empty when there is none.
std::string readNote(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    struct stat status {};
    std::array<char, PIPE_BUF> bytes{};
    ssize_t size = 0;
    if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode))
        size = read(file, bytes.data(), bytes.size());
    if (file >= 0)
        close(file);
    return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

void removeNote(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void writeNote(const std::string& path, const std::string& text) {
    removeNote(path);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        complain("cannot write " + path + ": " + std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
    if (file >= 0)
        close(file);
}

/// The file that says how the daemon has ended the last time; there is none after an orderly stop.
std::string lastEndFile(const std::string& folder) { return folder + "/last-end"; }

/// Returns how the daemon ended, from the service manager's variables; empty after an orderly stop.
std::string describeEnd() {
    const std::string result = variable("SERVICE_RESULT");
    const std::string code = variable("EXIT_CODE");
    const std::string status = variable("EXIT_STATUS");
    if (result == "timeout")
        return "the daemon did not start or end in time";
    if (code == "killed" && status == "KILL")
        return "the daemon was killed, which also happens when it runs out of memory";
    if (result == "success" && code == "killed")
        return "";
    if (code == "killed" || code == "dumped")
        return "the daemon ended by signal " + status;
    if (status == "0")
        return "the daemon ended by itself: its name was taken or refused, or the bus ended";
    return "the daemon ended with status " + status;
}

/// Seconds on the clock that counts from the boot.
double now() { return Seconds(Clock::now().time_since_epoch()).count(); }

/// A kind of ends of the daemon, of which the times are kept in a file of the runtime directory.
struct Ends {
    const char* file;
    std::size_t free; ///< so many within half a minute slow nothing down
};

constexpr Ends failures{"/failures", 10};
/// For lack of memory, above all. A flood of requests takes its time to fill it, and after it there is no time to lose.
constexpr Ends kills{"/kills", 40};

/// Returns the times of recent ends, oldest first.
std::vector<double> recentEnds(const std::string& folder, const Ends& ends) {
    constexpr Seconds window(30);
    std::istringstream file(readNote(folder + ends.file));
    std::vector<double> times{std::istream_iterator<double>(file), {}};
    const double latest = now();
    times.erase(std::remove_if(times.begin(), times.end(),
                               [&](double time) { return time > latest || time < latest - window.count(); }),
                times.end());
    return times;
}

/// Becomes the user to whom the runtime directory belongs, if this is root. Returns whether it could.
bool becomeOwner(const std::string& folder) {
    struct stat status {};
    if (geteuid() != 0)
        return true;
    if (lstat(folder.c_str(), &status) != 0)
        return false;
    return status.st_uid == 0 ||
           (setgroups(0, nullptr) == 0 && setgid(status.st_gid) == 0 && setuid(status.st_uid) == 0);
}

/// Sets the status after the daemon has ended, and keeps what the next start has to know.
int noteEnd(const std::string& folder) {
    removeNote(lastEndFile(folder));
    const std::string end = describeEnd();
    const std::string status = variable("EXIT_STATUS");
    if (status == std::to_string(EX_CONFIG))
        return 0; // this program itself has told why
    if (!end.empty())
        writeNote(lastEndFile(folder), end);
    setStatus(end);
    if (end.empty())
        return 0;
    const Ends& ends = status == "KILL" ? kills : failures;
    std::vector<double> times = recentEnds(folder, ends);
    times.push_back(now());
    std::ostringstream text;
    text.precision(12);
    std::copy(times.begin(), times.end(), std::ostream_iterator<double>(text, "\n"));
    writeNote(folder + ends.file, text.str());
    return 0;
}

/// Returns the remark about the last end that a status ends with.
std::string restartRemark(const std::string& folder) {
    const std::string end = readNote(lastEndFile(folder));
    const bool isText = std::all_of(end.begin(), end.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return end.empty() || !isText ? "" : "; restarted, since " + end;
}

/// Lets the start wait when the daemon has ended often of late, so that one that cannot stay up costs the board little.
/// With a limit on starts, the service manager would give up, and could be made to by any client who can end the
/// daemon.
void slowDown(const std::string& folder) {
    constexpr Seconds step(0.25);
    constexpr Seconds longestPause(1.5);
    for (const Ends& ends : {failures, kills}) {
        const std::size_t count = recentEnds(folder, ends).size();
        if (count <= ends.free)
            continue;
        setStatus("Pausing after " + std::to_string(count) + " ends in half a minute" + restartRemark(folder));
        std::this_thread::sleep_for(std::min(step * static_cast<double>(count - ends.free), longestPause));
    }
}

/// The file that says that the first start since the boot is over.
std::string waitedFile(const std::string& folder) { return folder + "/waited"; }

/// Returns for how many seconds missing value files are waited for: at the first start only.
std::chrono::seconds patience(const std::string& folder) {
    const std::string text = variable("VALUE_FILE_WAIT_SEC");
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (text.empty() || access(waitedFile(folder).c_str(), F_OK) == 0)
        return std::chrono::seconds(0);
    if (error != std::errc() || end != text.data() + text.size() || seconds < 0) {
        complain("VALUE_FILE_WAIT_SEC: " + text + " is no number of seconds");
        return std::chrono::seconds(0);
    }
    return std::chrono::seconds(seconds);
}

/// Passes each line that can be read on as status, until the end of the file or the deadline. Returns the last line.
/// Keeps the service manager waiting, too.
std::string relayLines(int descriptor, Clock::time_point deadline) {
    std::string text;
    std::string last;
    for (;;) {
        constexpr std::chrono::milliseconds second(1000);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd poller{descriptor, POLLIN, 0};
        std::array<char, PIPE_BUF> piece{};
        const int ready = poll(&poller, 1, static_cast<int>(std::clamp(left, 0 * second, second).count()));
        if (ready < 0 || (ready == 0 && left.count() <= 0))
            return last;
        if (ready == 0) {
            sd_notifyf(0, "EXTEND_TIMEOUT_USEC=%lld",
                       static_cast<long long>(std::chrono::microseconds(2 * checkerTime).count()));
            continue;
        }
        const ssize_t count = read(descriptor, piece.data(), piece.size());
        if (count <= 0)
            return last;
        text.append(piece.data(), static_cast<std::size_t>(count));
        for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            last = text.substr(0, end);
            text.erase(0, end + 1);
            setStatus(last);
        }
    }
}

struct Result {
    int status;       ///< of the checker, as of waitpid; -1: it did not run
    std::string text; ///< the last line of its output
};

/// Runs the checker, which writes the copy. Kills it when it takes too long.
Result salvage(const std::string& checker, const std::string& file, const std::string& copy,
               std::chrono::seconds wait) {
    removeNote(copy);
    const Clock::duration time = wait + checkerTime;
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return {-1, ""};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<std::string> words{checker, "--salvage", copy, "--wait", std::to_string(wait.count()), "--", file};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t child = 0;
    const int error = posix_spawn(&child, checker.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    Result result{-1, ""};
    if (error != 0) {
        complain("cannot run " + checker + ": " + std::strerror(error)); // NOLINT(concurrency-mt-unsafe)
    } else {
        const Clock::time_point deadline = Clock::now() + time;
        result.text = relayLines(ends[0], deadline);
        if (Clock::now() >= deadline)
            kill(child, SIGKILL);
        waitpid(child, &result.status, 0);
    }
    close(ends[0]);
    return result;
}

/// Returns the folder of this program, with a slash at its end.
std::string ownFolder() {
    std::string path(PATH_MAX, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    path.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return path.substr(0, path.rfind('/') + 1);
}

} // namespace

/// Usage: korvaneinfod-launch DAEMON FILE, the main process of the service: has the checker, which lies beside it,
/// salvage the configuration, and becomes the daemon with the copy. Or: korvaneinfod-launch --ended, after its end.
int main(int argc, char* argv[]) {
    std::string folder = variable("RUNTIME_DIRECTORY");
    folder = folder.substr(0, folder.find(':')); // a drop-in may add others
    const bool isEnd = argc == 2 && std::strcmp(argv[1], "--ended") == 0;
    if (folder.empty() || (!isEnd && argc != 3)) {
        std::cerr << "usage: korvaneinfod-launch DAEMON FILE | --ended, in a service with a runtime directory\n";
        return EX_CONFIG;
    }
    if (isEnd)
        return becomeOwner(folder) ? noteEnd(folder) : EX_NOPERM;

    slowDown(folder);
    std::string file = argv[2];
    const std::string copy = folder + "/board.json";
    const Result result = salvage(ownFolder() + "korvaneinfoctl-check", file, copy, patience(folder));
    writeNote(waitedFile(folder), "");
    const int status = WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
    if (status == check::exitHopeless)
        return EX_CONFIG;
    const bool hasCopy = access(copy.c_str(), R_OK) == 0;
    if (hasCopy && (status == 0 || status == check::exitErrors)) {
        setStatus("Serving " + result.text + restartRemark(folder));
        file = copy;
    } else {
        // Without the checker the board is as well off as it was before there was one.
        complain("the check has failed; the daemon gets " + file + " as it is");
        setStatus("The check of " + file + " has failed, it is served as it is" + restartRemark(folder));
    }
    std::string option = "-c";
    const std::array<char*, 4> arguments{argv[1], option.data(), file.data(), nullptr};
    execv(argv[1], arguments.data());
    const std::string error =
        std::string("cannot run ") + argv[1] + ": " + std::strerror(errno); // NOLINT(concurrency-mt-unsafe)
    complain(error);
    setStatus(error);
    return EX_CONFIG;
}
