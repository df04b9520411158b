#pragma once
// Starting other programs and ending this one.
#include <functional>
#include <string>

#include "platform/win_types.h"

namespace host {

// Starts the program at an original path (mapped under the unit root) with
// an optional command line, without waiting for it. FALSE with the last error
// set (ERROR_FILE_NOT_FOUND for a missing program).
BOOL CreateProcessW(const wchar_t* program, const wchar_t* commandLine = nullptr);

// Ends the process with `code` after flushing the debug output. Tests install
// a handler that records the code instead (and typically throws or ends the
// calling thread); the handler must not return if the caller relies on it.
[[noreturn]] void ExitProcess(int code);
using ExitHandler = std::function<void(int)>;
ExitHandler setExitHandler(ExitHandler handler);

}  // namespace host
