#include "Commands.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <getopt.h>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

/// A wrong command line; the text says what is wrong.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Arguments {
    ctl::Target target;
    ctl::Output output;
    bool autostart = true;
    bool isHelp = false;
    bool isVersion = false;
    std::vector<std::string> words; ///< the command and what follows it
};

void printUsage() {
    std::cout << "Usage: korvaneinfoctl [OPTION]... [COMMAND]\n"
                 "Show, set, follow and check the information of a board.\n"
                 "\n"
                 "  list               show all items (the default)\n"
                 "  get NAME...        print the values of items\n"
                 "  set NAME VALUE     set an item, and read it back\n"
                 "  watch [NAME]...    print changes as they happen\n"
                 "  check FILE...      say what the daemon would do with a configuration file\n"
                 "\n"
                 "NAME is a property, or as much of OBJECT/INTERFACE/PROPERTY as makes it unique.\n"
                 "\n"
                 "  -H, --host [USER@]HOST   ask a board over ssh\n"
                 "  -M, --machine CONTAINER  ask a container of this machine\n"
                 "      --no-autostart       do not start the daemon\n"
                 "      --json               print JSON; `watch` prints one object a line\n"
                 "      --no-legend          print no headings\n"
                 "  -l, --full               print full names, and do not cut lines\n"
                 "  -h, --help               show this help; `check --help` shows that of the checker\n"
                 "      --version            show the version\n";
}

/// Reads options, up to the command or to the end, as the list of short options says. Returns where it stopped.
int parseOptions(int argc, char** argv, const char* shortOptions, Arguments& arguments) {
    enum : int { json = 256, noLegend, noAutostart, version };
    const std::array<option, 9> options{{
        {"host", required_argument, nullptr, 'H'},
        {"machine", required_argument, nullptr, 'M'},
        {"no-autostart", no_argument, nullptr, noAutostart},
        {"json", no_argument, nullptr, json},
        {"no-legend", no_argument, nullptr, noLegend},
        {"full", no_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, version},
        {nullptr, 0, nullptr, 0},
    }};
    optind = 0; // start afresh, behind the first word
    // Single-threaded. NOLINTNEXTLINE(concurrency-mt-unsafe)
    for (int option = 0; (option = getopt_long(argc, argv, shortOptions, options.data(), nullptr)) != -1;) {
        switch (option) {
        case 'H':
            arguments.target = {ctl::Target::Place::remote, optarg};
            break;
        case 'M':
            arguments.target = {ctl::Target::Place::container, optarg};
            break;
        case noAutostart:
            arguments.autostart = false;
            break;
        case json:
            arguments.output.isJson = true;
            break;
        case noLegend:
            arguments.output.hasLegend = false;
            break;
        case 'l':
            arguments.output.isFull = true;
            break;
        case 'h':
            arguments.isHelp = true;
            break;
        case version:
            arguments.isVersion = true;
            break;
        default:
            throw UsageError(""); // getopt has complained already
        }
    }
    return optind;
}

/// Replaces this program by the checker; before it is installed, that lies in the next folder of the build.
[[noreturn]] void execCheck(const Arguments& arguments, int argc, char** argv) {
    std::array<char, PATH_MAX> self{};
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size() - 1);
    const std::string folder = length > 0 ? std::string(self.data()) : "";
    const std::string built = folder.substr(0, folder.rfind('/') + 1) + "../config/korvaneinfoctl-check";
    const std::string program = access(built.c_str(), X_OK) == 0 ? built : CHECK_PROGRAM;

    std::string name = "korvaneinfoctl check";
    std::string json = "--json";
    std::vector<char*> words{name.data()};
    if (arguments.output.isJson)
        words.push_back(json.data());
    words.insert(words.end(), argv, argv + argc);
    words.push_back(nullptr);
    execv(program.c_str(), words.data());
    throw ctl::Failure("cannot run " + program + ": " + std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
}

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    const int command = parseOptions(argc, argv, "+H:M:lh", arguments);
    if (command == argc) {
        arguments.words = {"list"};
        return arguments;
    }
    const std::string name = argv[command];
    if (name == "check" && arguments.target.place != ctl::Target::Place::local)
        throw UsageError("check takes neither --host nor --machine");
    if (name == "check" && !arguments.isHelp)
        execCheck(arguments, argc - command - 1, argv + command + 1);
    // Options may stand among the command's operands, but for set: its VALUE may be a negative number.
    char** const rest = argv + command;
    const int operands = parseOptions(argc - command, rest, name == "set" ? "+H:M:lh" : "H:M:lh", arguments);
    arguments.words.assign(rest + operands, argv + argc);
    arguments.words.insert(arguments.words.begin(), name);
    return arguments;
}

void run(const Arguments& arguments) {
    const std::string& command = arguments.words.front();
    const std::vector<std::string> operands(arguments.words.begin() + 1, arguments.words.end());
    const bool isSet = command == "set";
    if (command != "list" && command != "get" && command != "watch" && !isSet)
        throw UsageError("unknown command " + command);
    if (isSet && operands.size() != 2)
        throw UsageError("set needs a NAME and a VALUE");
    if (command == "get" && operands.empty())
        throw UsageError("get needs a NAME");
    if (command == "list" && !operands.empty())
        throw UsageError("list takes no NAME");

    ctl::Bus bus(arguments.target);
    if (!arguments.autostart)
        bus.disableAutostart();
    if (command == "list")
        list(bus, arguments.output);
    else if (command == "get")
        get(bus, arguments.output, operands);
    else if (isSet)
        set(bus, arguments.output, operands[0], operands[1]);
    else
        watch(bus, arguments.output, operands);
}

/// What has been printed is out already, and there is nothing to give back.
void onInterrupt(int /*signal*/) { _exit(0); }

} // namespace

/// Exit status: 0, 1 for a failed request, 2 for a wrong command line.
int main(int argc, char* argv[]) {
    try {
        const Arguments arguments = parse(argc, argv);
        if (arguments.isHelp) {
            printUsage();
            return 0;
        }
        if (arguments.isVersion) {
            std::cout << "korvaneinfoctl " VERSION "\n";
            return 0;
        }
        if (arguments.words.front() == "watch") {
            std::signal(SIGINT, onInterrupt);
            std::signal(SIGTERM, onInterrupt);
        }
        run(arguments);
        return 0;
    } catch (const UsageError& error) {
        if (*error.what() != '\0')
            std::cerr << "korvaneinfoctl: " << error.what() << '\n';
        std::cerr << "Try 'korvaneinfoctl --help'.\n";
        return exitUsage;
    } catch (const std::exception& error) {
        std::istringstream lines(error.what());
        std::string prefix = "korvaneinfoctl: ";
        for (std::string line; std::getline(lines, line); prefix.clear())
            std::cerr << prefix << ctl::printable(line) << '\n';
        return exitFailure;
    }
}
