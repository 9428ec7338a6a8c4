#pragma once

#include "Document.h"
#include "Findings.h"

#include <cstddef>
#include <set>
#include <string>
#include <vector>

/// Says what the daemon would do with a configuration file, without a bus: it reads the file with the daemon's JSON
/// library, the values with the daemon's reader, and judges with the daemon's conversions and introspection document.
namespace check {

struct Options {
    std::string root;        ///< folder below which value files are looked for; empty: this machine's own
    bool readsValues = true; ///< false: value files are not touched
    bool isSalvage = false;  ///< elements that are at fault are left out, and the others judged without them
};

/// Checks a configuration file; returns what was found, in the order of the file.
std::vector<Finding> checkFile(const std::string& file, const Options& options);

/// What a check finds, in the order of the file, and which elements a salvage leaves out, by their positions.
struct Checked {
    std::vector<Finding> findings;
    std::set<std::size_t> leftOut;
};

/// Checks a configuration that has been read already; `file` is only its name in the findings.
Checked checkDocument(const std::string& file, const Document& document, const Options& options);

/// Checks a configuration given as text; `file` is only its name in the findings.
std::vector<Finding> checkText(const std::string& file, const std::string& text, const Options& options);

} // namespace check
