#include "Salvage.h"

#include "Element.h"
#include "ValueFile.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <thread>

namespace check {

namespace {

/// Overwrites a range with blanks, but leaves its line ends.
void blank(std::string& text, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i)
        if (text[i] != '\n' && text[i] != '\r')
            text[i] = ' ';
}

/// Returns the offset of the next byte that is neither white space nor in a comment.
std::size_t skipBlanks(const std::string& text, std::size_t at) {
    while ((at = text.find_first_not_of(" \t\r\n", at)) != std::string::npos && text[at] == '/') {
        const bool isLine = text.compare(at, 2, "//") == 0;
        const std::size_t end = isLine ? text.find_first_of("\r\n", at) : text.find("*/", at + 2);
        if (end == std::string::npos)
            return end;
        at = isLine ? end : end + 2;
    }
    return at;
}

/// Blanks out a comma at this offset, if there is one.
void blankComma(std::string& text, std::size_t at) {
    if (at < text.size() && text[at] == ',')
        text[at] = ' ';
}

/// Returns the text without the elements at these positions.
std::string cut(const Document& document, const std::set<std::size_t>& leftOut) {
    const Json::Value& root = document.root();
    std::string text = document.text();
    if (leftOut.size() == root.size()) { // the daemon's JSON library takes no array with nothing but a comment in it
        blank(text, document.beginOf(root) + 1, document.endOf(root) - 1);
        return text;
    }
    std::optional<std::size_t> lastComma; // after the last element that stays
    for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
        const std::size_t comma = skipBlanks(document.text(), document.endOf(root[i]));
        if (leftOut.count(i) == 0) {
            lastComma = comma;
            continue;
        }
        blank(text, document.beginOf(root[i]), document.endOf(root[i]));
        blankComma(text, comma);
    }
    if (leftOut.count(root.size() - 1) != 0 && lastComma)
        blankComma(text, *lastComma);

    // What the daemon is going to read has to be what was kept.
    const Document copy(text);
    Json::ArrayIndex position = 0;
    for (Json::ArrayIndex i = 0; i < root.size(); ++i)
        if (leftOut.count(i) == 0 && (!copy.root().isValidIndex(position) || copy.root()[position++] != root[i]))
            throw std::logic_error("element " + std::to_string(i) + " would not survive the cut");
    if (!copy.root().isArray() || copy.root().size() != position)
        throw std::logic_error("the cut leaves a remnant");
    return text;
}

Salvaged salvageDocument(const std::string& file, const Document& document, Options options) {
    options.isSalvage = true;
    const Checked checked = checkDocument(file, document, options);
    Salvaged salvaged;
    salvaged.findings = checked.findings;
    if (!document.isValid() || !document.root().isArray()) {
        salvaged.findings = {salvaged.findings.back()}; // the obstacle
        salvaged.findings.front().severity = Severity::error;
        return salvaged;
    }
    salvaged.elements = document.root().size();
    salvaged.leftOut = checked.leftOut.size();
    salvaged.text = checked.leftOut.empty() ? document.text() : cut(document, checked.leftOut);
    return salvaged;
}

/// Returns the value files below /sys that are missing, by their paths.
std::set<std::string> missingBelowSys(const Json::Value& root) {
    std::set<std::string> missing;
    for (Json::ArrayIndex i = 0; root.isArray() && i < root.size(); ++i) {
        const Json::Value& path = root[i].isObject() ? root[i]["path"] : Json::Value::nullSingleton();
        struct stat status {};
        if (path.isString() && path.asString().compare(0, 5, "/sys/") == 0 && stat(path.asCString(), &status) != 0 &&
            errno == ENOENT)
            missing.insert(path.asString());
    }
    return missing;
}

void waitForFiles(const Json::Value& root, std::chrono::milliseconds patience, std::ostream& out) {
    using Clock = std::chrono::steady_clock;
    // The kernel announces no files in /sys to a process without udev.
    constexpr std::chrono::milliseconds pause(20);
    const Clock::time_point end = Clock::now() + patience;
    std::set<std::string> told;
    for (auto missing = missingBelowSys(root); !missing.empty() && Clock::now() < end;
         missing = missingBelowSys(root)) {
        if (missing != told)
            out << "waiting for " << printable(*missing.begin())
                << (missing.size() == 1 ? "" : " and " + std::to_string(missing.size() - 1) + " more") << std::endl;
        told = missing;
        std::this_thread::sleep_for(pause);
    }
}

} // namespace

std::string Salvaged::summary() const {
    if (!text) {
        const Finding& finding = findings.front();
        return printable(finding.file) + ":" + (finding.line == 0 ? "" : std::to_string(finding.line) + ":") + " " +
               finding.reason;
    }
    std::string line = std::to_string(elements - leftOut) + " of " + std::to_string(elements) + " items";
    // The service manager takes no status of more than 4096 bytes.
    constexpr std::size_t most = 3;
    constexpr std::size_t longest = 300;
    std::optional<std::size_t> last;
    std::size_t named = 0;
    for (const Finding& finding : findings) {
        if (!finding.isLeftOut || finding.element == last || named == most)
            continue;
        last = finding.element;
        const std::string description = describe(finding);
        line += (named++ == 0 ? "; left out: " : "; ") + beginning(description, longest) +
                (description.size() > longest ? "..." : "");
    }
    if (named < leftOut)
        line += "; and " + std::to_string(leftOut - named) + " more";
    const auto errors = std::count_if(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::error && !finding.isLeftOut;
    });
    return errors == 0 ? line : line + "; other errors: " + std::to_string(errors);
}

Salvaged salvageText(const std::string& file, const std::string& text, const Options& options) {
    return salvageDocument(file, Document(text), options);
}

Salvaged salvageFile(const std::string& file, const Options& options, std::chrono::milliseconds patience,
                     std::ostream& out) {
    const ValueFile content = ValueFile::readAll("", file);
    const bool isTooLong = content.bytes.size() > largestConfiguration;
    if (content.error != 0 || !content.notRegular.empty() || isTooLong) {
        Salvaged salvaged;
        salvaged.findings = {unreadable(file, content.error != 0 ? std::generic_category().message(content.error)
                                              : isTooLong
                                                  ? "has more than " + std::to_string(largestConfiguration) + " bytes"
                                                  : "is " + content.notRegular)};
        return salvaged;
    }
    const Document document(content.bytes);
    waitForFiles(document.root(), patience, out);
    return salvageDocument(file, document, options);
}

} // namespace check
