#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace check {

enum class Severity { error, warning };

/// What can be found; `kindInfo` tells the severity of each and what to do about it.
enum class Kind {
    unreadableFile,
    syntax,
    topLevel,
    topLevelIgnored,
    duplicateKey,
    trailingText,
    elementType,
    wrongType,
    oddType,
    unknownKey,
    introspection,
    objectPath,
    interfaceName,
    propertyName,
    signature,
    interfaceDiffers,
    duplicateItem,
    valueNumber,
    valueEncoding,
    valueTooLong,
    valuePart,
    valueNul,
    valueBoolean,
    repeatedBase,
    answeredAsText,
    noAccess,
    writableFuses,
    writableNumber,
    writeTarget,
    unknownLocation,
    relativePath,
    valueFile,
    fuseFile,
    valueFileKind,
    fuseLength,
    fuseEnd,
    fuseWhitespace,
    fuseRange,
    hugeLength,
    offsetText,
    translateIgnored,
    translateKey,
    translateValue,
    moreFindings,
};

/// What a salvage does with an element about which there is such a finding.
enum class Salvage {
    keeps,             ///< the element harms only itself
    leavesOutWhenRead, ///< leaves it out when the daemon would end over a read of its property
    leavesOut,
};

/// One row of the table of kinds.
struct KindInfo {
    Kind kind;
    const char* id;     ///< stable name of the kind, for programs
    Severity severity;  ///< error: the daemon does not start, ends, or an item cannot be read; warning: a surprise
    const char* remedy; ///< what to do about it
    Salvage salvage = Salvage::keeps;
};

/// Returns the row of a kind.
const KindInfo& kindInfo(Kind kind);

/// One thing found in one configuration file.
struct Finding {
    Kind kind;
    std::string file;                   ///< the configuration file, as given
    std::size_t line = 0;               ///< from 1; 0: unknown, or the file as a whole
    std::size_t column = 0;             ///< from 1; 0: only the line is known
    std::optional<std::size_t> element; ///< position in the array, from 0
    std::string name;                   ///< of the element's property; may be empty
    std::string key;                    ///< of the element; empty: the element or the document as a whole
    std::string reason;                 ///< what is wrong with this very place
    Severity severity = Severity::error;
    bool isLeftOut = false; ///< the salvaged copy lacks the element because of this
};

/// Returns the finding about a configuration file that cannot be read.
Finding unreadable(const std::string& file, const std::string& reason);

/// Returns a text with control characters and everything but UTF-8 escaped.
std::string printable(const std::string& text);

/// Returns a text in double quotes, with control characters and everything but UTF-8 escaped.
std::string quoted(const std::string& text);

/// Returns the beginning of a text, at most so many bytes, without a part of a character at its end.
std::string beginning(const std::string& text, std::size_t longest);

/// Returns the beginning of a text in double quotes.
std::string excerpt(const std::string& text);

/// Returns a finding in the words for people: the element, the key and the reason.
std::string describe(const Finding& finding);

/// Writes the findings like a compiler's, one a line; optionally with the journal's priority prefixes.
void writeText(std::ostream& out, const std::vector<Finding>& findings, bool hasPriorities = false);

/// Writes the findings as one JSON array of objects.
void writeJson(std::ostream& out, const std::vector<Finding>& findings);

} // namespace check
