/* What the daemon's start cannot do without: reading the value files and sending the journal messages. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Does what the benchmark recorded of a real start of the daemon, see record_start() in run.py: lines "file PATH" and
 * lines "message PRIORITY LINE FUNCTION SIZE" with SIZE bytes of text behind them. Ends the program on an error. */
void replay(const char* path);

#ifdef __cplusplus
}
#endif
