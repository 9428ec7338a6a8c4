#pragma once

namespace check {

/// How the checker ends, besides 0; the launcher goes by it.
enum ExitStatus : int {
    exitErrors = 1,   ///< errors were found; a salvage has written its copy all the same
    exitUsage = 2,    ///< the command line is wrong
    exitHopeless = 3, ///< there is nothing to be salvaged
    exitNoOutput = 4, ///< the salvaged copy cannot be written
};

} // namespace check
