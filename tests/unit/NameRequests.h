#pragma once

#include <gio/gio.h>
#include <string>

/// Watches and steers the requests for the bus name in the test binary.
namespace name_requests {

enum class Answer {
    hold,    ///< an owner id, and then nothing: no callback comes between what a test does
    refuse,  ///< no owner id
    forward, ///< what the bus library says
};

extern Answer answer; ///< to each request
extern int made;      ///< requests so far
extern int released;  ///< releases so far

extern GBusType lastBus; ///< of the last request
extern std::string lastName;
extern GBusNameOwnerFlags lastFlags;

} // namespace name_requests
