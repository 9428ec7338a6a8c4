// Any configuration text with a value file through the checker, against what the daemon's own code then does with them.
// The input is that of the target "configuration".

#include "Check.h"
#include "ConfigFileParser.h"
#include "ConfigurationInput.h"
#include "JournalCapture.h"
#include "Salvage.h"
#include "dbus/DBusServices.h"

#include <algorithm>
#include <gio/gio.h>
#include <json/json.h>
#include <sstream>
#include <string_view>

namespace {

using check::Kind;

struct Result {
    std::vector<check::Finding> findings;

    bool has(Kind kind) const {
        return std::any_of(findings.begin(), findings.end(), [=](const auto& finding) { return finding.kind == kind; });
    }
    bool has(Kind kind, std::size_t element) const {
        return std::any_of(findings.begin(), findings.end(),
                           [=](const auto& finding) { return finding.kind == kind && finding.element == element; });
    }
    bool hasError() const {
        return std::any_of(findings.begin(), findings.end(),
                           [](const auto& finding) { return finding.severity == check::Severity::error; });
    }
};

bool parseRaises(const std::string& file) {
    try {
        ConfigFileParser::getInstance()->parseData(file);
        return false;
    } catch (const Json::Exception&) {
        return true;
    }
}

bool isIntrospectionRefused() {
    std::string xml;
    dbus::DBusServices::generateXMLFile(xml);
    try {
        Gio::DBus::NodeInfo::create_for_xml(xml);
        return false;
    } catch (const Glib::Error&) {
        return true;
    }
}

/// Whether a Get of the entry ends the daemon.
bool answerRaises(const ConfigEntry& entry) {
    const bool isString = entry.type.empty() || std::string_view("bdiu").find(entry.type.front()) == std::string::npos;
    if (isString && g_utf8_validate(entry.content.c_str(), -1, nullptr) == FALSE)
        return true; // GLib would complain of it
    try {
        dbus::DBusServices::contentToVariant(entry.type, entry.content);
        return false;
    } catch (const std::logic_error&) {
        return true;
    }
}

/// Both ways to print the findings show each of them once.
void requireOutput(const std::vector<check::Finding>& findings) {
    std::ostringstream text;
    check::writeText(text, findings);
    const std::string lines = text.str();
    fuzz::require(std::count(lines.begin(), lines.end(), '\n') == static_cast<std::ptrdiff_t>(findings.size()) &&
                      g_utf8_validate_len(lines.data(), lines.size(), nullptr),
                  "every finding is a line of text");
    std::ostringstream json;
    check::writeJson(json, findings);
    Json::Value array;
    std::istringstream(json.str()) >> array;
    fuzz::require(array.isArray() && array.size() == findings.size(), "every finding is an element of the JSON array");
}

/// A salvaged copy is as long as the text, differs from it only in blanks, and has nothing more to be left out.
void requireSalvage(const std::string& text, bool isArray) {
    const check::Salvaged salvaged = check::salvageText("file", text, {});
    fuzz::require(salvaged.text.has_value() == isArray, "what is salvaged is an array");
    const std::string summary = salvaged.summary();
    fuzz::require(std::none_of(summary.begin(), summary.end(), [](char c) { return g_ascii_iscntrl(c) != FALSE; }),
                  "the summary is one line without control characters");
    if (!isArray)
        return;
    fuzz::require(salvaged.text->size() == text.size() &&
                      std::equal(text.begin(), text.end(), salvaged.text->begin(),
                                 [](char before, char after) { return before == after || after == ' '; }),
                  "what stays, stays where it is");
    fuzz::require(check::salvageText("file", *salvaged.text, {}).leftOut == 0, "nothing is left to be left out");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::ConfigurationInput input(data, size);
    if (!input.isHarmless())
        return 0;
    input.write();
    const std::string& text = input.text;
    const bool isJson = input.outcome == fuzz::ConfigurationInput::Outcome::parsed;

    const Result result{check::checkText("file", text, {})};
    fuzz::require(result.has(Kind::syntax) == !isJson, "a syntax error is what the daemon's parser refuses");
    const auto lines = 1 + static_cast<std::size_t>(
                               std::count_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }));
    for (const check::Finding& finding : result.findings)
        fuzz::require(finding.line <= lines && (finding.line > 0 || finding.kind == Kind::syntax) &&
                          (!finding.element || *finding.element < input.root.size()),
                      "a finding is about a place in the text");
    requireOutput(result.findings);
    requireSalvage(text, isJson && input.root.isArray());

    const std::vector<ConfigEntry>& entries = ConfigFileParser::getInstance()->entries;
    ConfigFileParser::getInstance()->entries.clear();
    const bool raises = parseRaises(fuzz::ConfigurationInput::configurationPath());
    if (isJson) {
        fuzz::require(raises ==
                          (result.has(Kind::topLevel) || result.has(Kind::elementType) || result.has(Kind::wrongType)),
                      "an error tells of each type over which the daemon ends, and of no other");
        fuzz::require(raises || result.hasError() || !isIntrospectionRefused(),
                      "without an error the introspection document is accepted");
        for (std::size_t i = 0; i < entries.size(); ++i)
            if (entries[i].isRead || !entries[i].isWrite)
                fuzz::require(answerRaises(entries[i]) ==
                                  (result.has(Kind::valueNumber, i) || result.has(Kind::valueEncoding, i)),
                              "an error tells of each value that cannot be read, and of no other");
    }
    journal::take();
    return 0;
}
