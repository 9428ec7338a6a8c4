#include "ExitStatus.h"
#include "Salvage.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <iostream>
#include <iterator>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

struct Arguments {
    check::Options options;
    bool isJson = false;
    bool isStrict = false;
    bool isHelp = false;
    std::string salvage; ///< path of the salvaged copy; empty: none is wanted
    std::chrono::seconds patience{0};
    std::vector<std::string> files;
};

void printUsage(std::ostream& out) {
    out << "Usage: korvaneinfoctl check [OPTION]... FILE...\n"
           "Say what the daemon would do with a configuration file.\n"
           "\n"
           "      --json       print one JSON array\n"
           "      --werror     make every warning an error\n"
           "      --root DIR   look for value files below DIR\n"
           "      --no-values  leave value files alone\n"
           "      --salvage OUTPUT\n"
           "                   write a copy without the elements that would end the daemon\n"
           "      --wait SECONDS\n"
           "                   before that, wait for missing value files below /sys\n"
           "  -h, --help       show this help\n";
}

/// Reads a number of seconds. Returns false when the text is none.
bool parseSeconds(const char* text, std::chrono::seconds& seconds) {
    int number = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    seconds = std::chrono::seconds(number);
    return error == std::errc() && rest == end && number >= 0;
}

/// Returns what is wrong with the operands and with the options together; empty: nothing.
std::string usageError(const Arguments& arguments) {
    std::error_code ignored;
    const std::string& root = arguments.options.root;
    if (!root.empty() && !std::filesystem::is_directory(root, ignored))
        return "--root: " + root + " is no folder";
    if (arguments.files.empty())
        return "no file given";
    if (arguments.salvage.empty())
        return arguments.patience.count() == 0 ? "" : "--wait goes with --salvage";
    if (arguments.patience.count() != 0 && (!root.empty() || !arguments.options.readsValues))
        return "--wait goes neither with --root nor with --no-values";
    if (arguments.files.size() != 1)
        return "--salvage takes one file";
    if (std::filesystem::equivalent(arguments.files.front(), arguments.salvage, ignored))
        return "--salvage: " + arguments.salvage + " is the file to be salvaged";
    return "";
}

/// Returns false when the command line is wrong; it has been complained of then.
bool parse(int argc, char** argv, Arguments& arguments) {
    enum : int { json = 256, werror, rootFolder, noValues, salvage, wait };
    const std::array<option, 8> options{{
        {"json", no_argument, nullptr, json},
        {"werror", no_argument, nullptr, werror},
        {"root", required_argument, nullptr, rootFolder},
        {"no-values", no_argument, nullptr, noValues},
        {"salvage", required_argument, nullptr, salvage},
        {"wait", required_argument, nullptr, wait},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    }};
    // Single-threaded. NOLINTNEXTLINE(concurrency-mt-unsafe)
    for (int option = 0; (option = getopt_long(argc, argv, "h", options.data(), nullptr)) != -1;) {
        switch (option) {
        case json:
            arguments.isJson = true;
            break;
        case werror:
            arguments.isStrict = true;
            break;
        case rootFolder:
            arguments.options.root = optarg;
            break;
        case noValues:
            arguments.options.readsValues = false;
            break;
        case salvage:
            arguments.salvage = optarg;
            break;
        case wait:
            if (!parseSeconds(optarg, arguments.patience)) {
                std::cerr << argv[0] << ": --wait: " << optarg << " is no number of seconds\n";
                return false;
            }
            break;
        case 'h':
            arguments.isHelp = true;
            break;
        default:
            return false;
        }
    }
    arguments.files.assign(argv + optind, argv + argc);
    const std::string error = arguments.isHelp ? "" : usageError(arguments);
    if (!error.empty())
        std::cerr << argv[0] << ": " << error << '\n';
    return error.empty();
}

bool hasErrors(const std::vector<check::Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const auto& finding) { return finding.severity == check::Severity::error; });
}

void makeErrors(std::vector<check::Finding>& findings) {
    for (check::Finding& finding : findings)
        finding.severity = check::Severity::error;
}

/// Whether standard error goes to the journal, which then takes priorities from the beginnings of lines.
bool isJournalStream() {
    const char* const stream = std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe)
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

/// Checks all files, one by one. Returns the exit status.
int checkFiles(const Arguments& arguments) {
    std::vector<check::Finding> findings;
    for (const std::string& file : arguments.files) {
        std::vector<check::Finding> found = check::checkFile(file, arguments.options);
        findings.insert(findings.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    }
    if (arguments.isStrict)
        makeErrors(findings);
    if (arguments.isJson)
        check::writeJson(std::cout, findings);
    else
        check::writeText(std::cout, findings);
    return hasErrors(findings) ? check::exitErrors : 0;
}

/// Writes the salvaged copy; the findings go to standard error, and standard output says in a line what has been kept.
/// Returns the exit status.
int salvageFile(const Arguments& arguments) {
    check::Salvaged salvaged =
        check::salvageFile(arguments.files.front(), arguments.options, arguments.patience, std::cout);
    if (arguments.isStrict)
        makeErrors(salvaged.findings);
    if (arguments.isJson)
        check::writeJson(std::cerr, salvaged.findings);
    else
        check::writeText(std::cerr, salvaged.findings, isJournalStream());
    std::cout << salvaged.summary() << std::endl;
    if (!salvaged.text)
        return check::exitHopeless;
    std::ofstream output(arguments.salvage, std::ios::binary);
    output << *salvaged.text << std::flush;
    if (!output) {
        std::cerr << "cannot write " << arguments.salvage << ": " << std::generic_category().message(errno) << '\n';
        return check::exitNoOutput;
    }
    return hasErrors(salvaged.findings) ? check::exitErrors : 0;
}

} // namespace

/// Usage: korvaneinfoctl-check [OPTION]... FILE...; run by korvaneinfoctl, and before each start of the service.
int main(int argc, char* argv[]) {
    Arguments arguments;
    if (!parse(argc, argv, arguments)) {
        printUsage(std::cerr);
        return check::exitUsage;
    }
    if (arguments.isHelp) {
        printUsage(std::cout);
        return 0;
    }
    return arguments.salvage.empty() ? checkFiles(arguments) : salvageFile(arguments);
}
