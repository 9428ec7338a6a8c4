// Linked into the programs of a coverage build. gcov writes its counts when a program exits; the daemon, though, ends
// by a signal in many tests, by SIGTERM, or by itself with SIGTRAP or SIGABRT. Nothing can be done about SIGKILL.

#include <array>
#include <csignal>

extern "C" void __gcov_dump(); // NOLINT(bugprone-reserved-identifier): named by gcov

namespace {

void dump(int signal) {
    __gcov_dump();
    std::raise(signal); // once this has returned, and then by the default action
}

[[gnu::constructor]] void install() {
    struct sigaction action {};
    action.sa_handler = dump;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    constexpr std::array signals{SIGABRT, SIGTERM, SIGTRAP};
    for (const int signal : signals)
        sigaction(signal, &action, nullptr);
}

} // namespace
