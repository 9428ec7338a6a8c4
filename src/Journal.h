#pragma once

// The location macros of the header would overwrite the fixed locations below with the real ones.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <syslog.h>
#include <systemd/sd-journal.h>

/// Sends one message to the systemd journal.
///
/// `priority` is a syslog(3) priority, `line` and `function` become the fields CODE_LINE and CODE_FUNC, CODE_FILE is
/// the path of the source file from the source root, and the rest is a printf format with its arguments, which the
/// compiler checks. Failures to log are ignored.
///
/// The line numbers are fixed by hand: operators filter and alert on CODE_FILE and CODE_LINE, which makes them part
/// of the log interface. They name the message and must not move when the code around it does.
///
/// This is a macro because CODE_FILE and CODE_LINE have to be string literals, and because the compiler checks the
/// format only where it sees the call itself.
#define JOURNAL(priority, line, function, ...)                                                                         \
    sd_journal_print_with_location(priority, "CODE_FILE=" __FILE__, "CODE_LINE=" #line, function, __VA_ARGS__)
