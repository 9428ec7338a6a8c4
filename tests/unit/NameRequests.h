#pragma once

#include <gio/gio.h>
#include <string>

/// Watches and steers the requests for the bus name in the test binary.
namespace name_requests {

extern bool refuse;  ///< while set, a request gets no owner id
extern int made;     ///< requests so far
extern int released; ///< releases so far

extern GBusType lastBus; ///< of the last request
extern std::string lastName;
extern GBusNameOwnerFlags lastFlags;

} // namespace name_requests
