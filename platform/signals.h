#pragma once
// The operator's stop request. On the unit the operator ends the program
// with the status window's OK button; on a host the same request arrives as
// SIGINT (Ctrl-C) or SIGTERM (service stop). The first such signal sets a
// manual-reset event that the main thread can wait for like any other; a
// second one ends the process at once, for a shutdown that does not finish.
#include "platform/win_types.h"

namespace host {

// Installs the SIGINT and SIGTERM handlers on the first call and answers
// the event they set (the same handle on every call). NULL if the handlers
// cannot be installed, with the last error set.
HANDLE stopSignalEvent();

}  // namespace host
