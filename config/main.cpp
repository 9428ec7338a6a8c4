#include "Check.h"

#include <array>
#include <filesystem>
#include <getopt.h>
#include <iostream>
#include <iterator>

namespace {

constexpr int exitErrors = 1;
constexpr int exitUsage = 2;

struct Arguments {
    check::Options options;
    bool isJson = false;
    bool isStrict = false;
    bool isHelp = false;
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
           "  -h, --help       show this help\n";
}

/// Returns false when the command line is wrong; it has been complained of then.
bool parse(int argc, char** argv, Arguments& arguments) {
    enum : int { json = 256, werror, rootFolder, noValues };
    const std::array<option, 6> options{{
        {"json", no_argument, nullptr, json},
        {"werror", no_argument, nullptr, werror},
        {"root", required_argument, nullptr, rootFolder},
        {"no-values", no_argument, nullptr, noValues},
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
        case 'h':
            arguments.isHelp = true;
            break;
        default:
            return false;
        }
    }
    const std::string& root = arguments.options.root;
    std::error_code ignored;
    if (!root.empty() && !std::filesystem::is_directory(root, ignored)) {
        std::cerr << argv[0] << ": --root: " << root << " is no folder\n";
        return false;
    }
    arguments.files.assign(argv + optind, argv + argc);
    if (arguments.files.empty() && !arguments.isHelp)
        std::cerr << argv[0] << ": no file given\n";
    return !arguments.files.empty() || arguments.isHelp;
}

} // namespace

/// Usage: korvaneinfoctl-check [OPTION]... FILE...; run by korvaneinfoctl.
int main(int argc, char* argv[]) {
    Arguments arguments;
    if (!parse(argc, argv, arguments)) {
        printUsage(std::cerr);
        return exitUsage;
    }
    if (arguments.isHelp) {
        printUsage(std::cout);
        return 0;
    }
    std::vector<check::Finding> findings;
    bool hasErrors = false;
    for (const std::string& file : arguments.files) {
        for (check::Finding& finding : check::checkFile(file, arguments.options)) {
            if (arguments.isStrict)
                finding.severity = check::Severity::error;
            hasErrors = hasErrors || finding.severity == check::Severity::error;
            findings.push_back(std::move(finding));
        }
    }
    if (arguments.isJson)
        check::writeJson(std::cout, findings);
    else
        check::writeText(std::cout, findings);
    return hasErrors ? exitErrors : 0;
}
