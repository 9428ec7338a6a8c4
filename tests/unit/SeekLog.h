#pragma once

#include <cstdint>
#include <vector>

/// Watches the seeks of file streams in the test binary.
namespace seek_log {

/// Returns the position, in bytes from the start of the file, of each seek since the last call.
std::vector<std::int64_t> take();

} // namespace seek_log
