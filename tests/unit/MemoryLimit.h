#pragma once

/// Takes the place of the global allocation functions in the test binary.
namespace memory_limit {

/// While set, allocations of more than a mebibyte fail as they do when memory is exhausted.
extern bool largeAllocationsFail;

} // namespace memory_limit
