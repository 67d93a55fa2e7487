#pragma once

// Signals that ask a command to stop once it has cleaned up: SIGINT, SIGTERM, SIGHUP (a closed
// terminal) and SIGPIPE (a reader of standard output gone). A command that would leave
// something behind if killed catches them; its work asks stopRequested() between its steps and
// unwinds, and the program then ends with the signal itself (see main), as it would have
// without the cleanup. Commands that write nothing keep the default actions.

namespace zo::cli {

// From now on the signals are noted instead of ending the program; false when they cannot be
// caught, which leaves the default actions.
bool catchStopSignals();
// Whether one of them arrived since catchStopSignals.
bool stopRequested();
// The first that arrived, 0 while none did.
int stopSignal();

} // namespace zo::cli
