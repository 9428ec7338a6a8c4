#pragma once

#include "Check.h"
#include "Element.h"

#include <optional>
#include <string>

namespace check {

/// Checks the value file and reads the value as the daemon would; no value when that cannot be told here.
std::optional<std::string> checkValueFile(const Element& element, const Options& options);

/// Checks that clients can read the value, and that they get what stands in the file. Returns false when the daemon
/// ends over a read.
bool checkValue(const Element& element, const std::string& content);

} // namespace check
