#pragma once

/// Watches and steers the requests for the bus name in the test binary.
namespace name_requests {

extern bool refuse;  ///< while set, a request gets no owner id
extern int made;     ///< requests so far
extern int released; ///< releases so far

} // namespace name_requests
