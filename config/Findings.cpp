#include "Findings.h"

#include <array>
#include <glib.h>
#include <json/json.h>
#include <systemd/sd-daemon.h>

namespace check {

namespace {

constexpr Severity error = Severity::error;
constexpr Severity warning = Severity::warning;

// In the order of Kind. What to do continues the reason, behind a semicolon.
constexpr std::array kinds{
    KindInfo{Kind::unreadableFile, "unreadable-file", error, "name a configuration file, or let it be read"},
    KindInfo{Kind::syntax, "syntax", error, "correct the JSON, without it the daemon does not start"},
    KindInfo{Kind::topLevel, "top-level", error, "write an array of objects, the daemon ends at start"},
    KindInfo{Kind::topLevelIgnored, "top-level-ignored", warning, "write an array of objects, nothing is published"},
    KindInfo{Kind::duplicateKey, "duplicate-key", warning, "remove one of them, only the last one counts"},
    KindInfo{Kind::trailingText, "trailing-text", warning, "remove it, the daemon ignores it"},
    KindInfo{Kind::elementType, "element-type", error, "write an object, the daemon ends at start", Salvage::leavesOut},
    KindInfo{Kind::wrongType, "wrong-type", error, "correct the type, the daemon ends at start", Salvage::leavesOut},
    KindInfo{Kind::oddType, "odd-type", warning, "write the type that is meant"},
    KindInfo{Kind::unknownKey, "unknown-key", warning, "correct or remove it, the daemon ignores it"},
    KindInfo{Kind::introspection, "introspection", error,
             "use letters, digits and underscores, the daemon ends at start", Salvage::leavesOut},
    KindInfo{Kind::objectPath, "object-path", error,
             "use letters, digits and underscores with single slashes between, the daemon ends at start",
             Salvage::leavesOut},
    KindInfo{Kind::interfaceName, "interface-name", error,
             "use letters, digits and underscores, not a digit first, the daemon ends at start", Salvage::leavesOut},
    KindInfo{Kind::propertyName, "property-name", error,
             "use letters, digits and underscores, not a digit first, many clients refuse other names"},
    KindInfo{Kind::signature, "signature", error, R"(write one complete D-Bus type such as "s", "u" or "b")"},
    KindInfo{Kind::interfaceDiffers, "interface-differs", error,
             "give all items of an object path the same interface, clients cannot reach this one"},
    KindInfo{Kind::duplicateItem, "duplicate-item", error,
             "rename or remove one of them, clients cannot tell them apart", Salvage::leavesOutWhenRead},
    KindInfo{Kind::valueNumber, "value-number", error,
             R"(correct the value or use type "s", the daemon ends when a client reads the item)",
             Salvage::leavesOutWhenRead},
    KindInfo{Kind::valueEncoding, "value-encoding", error,
             "correct the value, the daemon ends when a client reads the item", Salvage::leavesOutWhenRead},
    KindInfo{Kind::valueTooLong, "value-too-long", error, "shorten it, the daemon runs out of memory",
             Salvage::leavesOut},
    KindInfo{Kind::valuePart, "value-part", warning, R"(correct the value or use type "s")"},
    KindInfo{Kind::valueNul, "value-nul", warning, "remove the NUL, clients see only the text before it"},
    KindInfo{Kind::valueBoolean, "value-boolean", warning, R"(only the text "true" is published as true)"},
    KindInfo{Kind::repeatedBase, "repeated-base", warning, "write only what comes after the daemon's own name"},
    KindInfo{Kind::answeredAsText, "answered-as-text", warning,
             R"(use "s", or "b", "d", "i" or "u", clients get a string for every other type)"},
    KindInfo{Kind::noAccess, "no-access", warning, R"(set "read" or "write", it is published as readable)"},
    KindInfo{Kind::writableFuses, "writable-fuses", warning,
             R"(remove "write", a client's Set replaces the whole file with text)"},
    KindInfo{Kind::writableNumber, "writable-number", warning,
             R"(use type "i" or "s", or remove "write", some values that a client can set end the daemon)"},
    KindInfo{
        Kind::writeTarget, "write-target", warning,
        "correct the path or the owner of the file, or name it in ReadWritePaths=, a client's Set changes nothing"},
    KindInfo{Kind::unknownLocation, "unknown-location", warning, R"(write "par" or "fuses", the value stays empty)"},
    KindInfo{Kind::relativePath, "relative-path", warning,
             "write an absolute path, the daemon looks from its own working directory"},
    KindInfo{Kind::valueFile, "value-file", warning,
             "correct the path, or who may read it, the value is read as empty"},
    KindInfo{Kind::fuseFile, "fuse-file", warning, "correct the path, or who may read it, the daemon reads zeros",
             Salvage::leavesOut},
    KindInfo{Kind::valueFileKind, "value-file-kind", warning,
             "name a regular file, reading this one may block or never end; its value is not checked",
             Salvage::leavesOut},
    KindInfo{Kind::fuseLength, "fuse-length", warning, "give the number of bytes, the value is always 0"},
    KindInfo{Kind::fuseEnd, "fuse-end", warning,
             R"(correct "offset" or "length", missing bytes are zero or repeat the last one)"},
    KindInfo{Kind::fuseWhitespace, "fuse-whitespace", warning,
             "publish up to 4 bytes an item, longer ones skip whitespace bytes and read on past their end"},
    KindInfo{Kind::fuseRange, "fuse-range", warning,
             R"(use type "s" or fewer bytes, on a board with a larger value the daemon ends when a client reads it)"},
    KindInfo{Kind::hugeLength, "huge-length", warning, "correct it, the daemon holds the value in memory many times"},
    KindInfo{Kind::offsetText, "offset-text", warning,
             "write a decimal number from 0 to 4294967295, or a hexadecimal one with 0x"},
    KindInfo{Kind::translateIgnored, "translate-ignored", warning,
             R"(remove it, only values of "location" "fuses" are translated)"},
    KindInfo{Kind::translateKey, "translate-key", warning, "correct or remove it, it never matches"},
    KindInfo{Kind::translateValue, "translate-value", warning, "write a string, the daemon ignores the member"},
    KindInfo{Kind::moreFindings, "more-findings", warning, "correct those above first"},
};

constexpr bool inOrder() {
    for (std::size_t i = 0; i < kinds.size(); ++i)
        if (static_cast<std::size_t>(kinds[i].kind) != i)
            return false;
    return kinds.size() == static_cast<std::size_t>(Kind::moreFindings) + 1;
}
static_assert(inOrder());

/// Whether a character changes the order in which the ones around it are shown.
bool isBidirectionalControl(gunichar character) {
    return character == 0x061c || character == 0x200e || character == 0x200f ||
           (character >= 0x202a && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
}

const char* severityText(const Finding& finding) { return finding.severity == error ? "error" : "warning"; }

} // namespace

Finding unreadable(const std::string& file, const std::string& reason) {
    Finding finding{};
    finding.kind = Kind::unreadableFile;
    finding.file = file;
    finding.reason = reason;
    finding.severity = kindInfo(finding.kind).severity;
    return finding;
}

std::string printable(const std::string& text) {
    static constexpr std::array digits{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
    const bool isUtf8 = g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
    std::string result;
    for (std::size_t at = 0, size = 0; at < text.size(); at += size) {
        size = isUtf8 ? static_cast<std::size_t>(g_utf8_skip[static_cast<unsigned char>(text[at])]) : 1;
        const bool isAscii = static_cast<unsigned char>(text[at]) < 0x80;
        const gunichar character = isUtf8 ? g_utf8_get_char(&text[at]) : static_cast<unsigned char>(text[at]);
        if ((isUtf8 || isAscii) && !g_unichar_iscntrl(character) && !isBidirectionalControl(character)) {
            result.append(text, at, size);
            continue;
        }
        for (std::size_t i = at; i < at + size; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            result += "\\x";
            result += digits[byte / 16U];
            result += digits[byte % 16U];
        }
    }
    return result;
}

const KindInfo& kindInfo(Kind kind) { return kinds[static_cast<std::size_t>(kind)]; }

std::string quoted(const std::string& text) { return '"' + printable(text) + '"'; }

std::string beginning(const std::string& text, std::size_t longest) {
    if (text.size() <= longest)
        return text;
    std::size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
        --end;
    return text.substr(0, end);
}

std::string excerpt(const std::string& text) {
    constexpr std::size_t longest = 60;
    return quoted(beginning(text, longest)) + (text.size() > longest ? "..." : "");
}

std::string describe(const Finding& finding) {
    std::string text;
    if (finding.element)
        text += "element " + std::to_string(*finding.element) +
                (finding.name.empty() ? "" : " " + quoted(finding.name)) + ": ";
    if (!finding.key.empty())
        text += quoted(finding.key) + ": ";
    return text + finding.reason;
}

void writeText(std::ostream& out, const std::vector<Finding>& findings, bool hasPriorities) {
    for (const Finding& finding : findings) {
        if (hasPriorities)
            out << (finding.severity == error ? SD_ERR : SD_WARNING);
        out << printable(finding.file) << ':';
        if (finding.line != 0)
            out << finding.line << ':';
        if (finding.column != 0)
            out << finding.column << ':';
        const KindInfo& kind = kindInfo(finding.kind);
        out << ' ' << severityText(finding) << ": " << (finding.isLeftOut ? "left out: " : "") << describe(finding)
            << "; " << kind.remedy << " [" << kind.id << "]\n";
    }
}

void writeJson(std::ostream& out, const std::vector<Finding>& findings) {
    Json::Value array(Json::arrayValue);
    for (const Finding& finding : findings) {
        const KindInfo& kind = kindInfo(finding.kind);
        Json::Value object;
        object["file"] = finding.file;
        object["line"] = finding.line != 0 ? Json::Value(Json::UInt64{finding.line}) : Json::Value();
        object["column"] = finding.column != 0 ? Json::Value(Json::UInt64{finding.column}) : Json::Value();
        object["element"] = finding.element ? Json::Value(Json::UInt64{*finding.element}) : Json::Value();
        object["name"] = finding.name;
        object["key"] = finding.key;
        object["severity"] = severityText(finding);
        object["kind"] = kind.id;
        object["reason"] = finding.reason;
        object["remedy"] = kind.remedy;
        if (finding.isLeftOut)
            object["leftOut"] = true;
        array.append(object);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    out << Json::writeString(builder, array) << '\n';
}

} // namespace check
