#include "Journal.h"

// Defined in the program, it is found before the one in the shared library: the daemon's code runs here to judge a
// file, and what it has to say about that is no news of this machine.
int sd_journal_print_with_location(int /*priority*/, const char* /*file*/, const char* /*line*/, const char* /*func*/,
                                   const char* /*format*/, ...) {
    return 0;
}
