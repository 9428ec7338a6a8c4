/* The bare loop: reads the value files and sends the journal messages of a recorded start, and nothing else.
 *
 * Usage: bare-start RECORD */
#include "record.h"

#include <stddef.h>

int main(int argc, char* argv[]) {
    replay(argc == 2 ? argv[1] : NULL);
    return 0;
}
