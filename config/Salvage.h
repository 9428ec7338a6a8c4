#pragma once

#include "Check.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace check {

/// What a salvage makes of a configuration: a copy with which the daemon starts and stays up.
struct Salvaged {
    /// The configuration with blanks where elements are left out, so that all else stands where it stood; nothing when
    /// there is no JSON array to save elements of.
    std::optional<std::string> text;
    std::vector<Finding> findings;
    std::size_t elements = 0; ///< of the original
    std::size_t leftOut = 0;

    /// Returns what is served, what was left out and why, or why nothing can be, in one line.
    std::string summary() const;
};

/// Salvages a configuration given as text; `file` is only its name in the findings.
Salvaged salvageText(const std::string& file, const std::string& text, const Options& options);

/// Salvages a configuration file, of which no more is read than the daemon has the memory for. Waits first for value
/// files below /sys that are missing, which come with their driver, at most for the given time; says so on `out`.
Salvaged salvageFile(const std::string& file, const Options& options, std::chrono::milliseconds patience,
                     std::ostream& out);

} // namespace check
