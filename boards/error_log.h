#pragma once
// The process-wide event log "usb.log": UTF-16LE lines with a local time
// stamp, flushed per line, rotated to "usb.log.old" above 1 MiB.
#include <string>

#include "platform/sync.h"

// Folder settings (original paths, mapped under the unit root by the host).
extern const std::wstring logFolder;      // "\FlashFx Disk2\Orvane\Users\Admin\SystemLogs"
extern const std::wstring installFolder;  // "\Program Files\Orvane Instruments\480"

// Appends one line; never throws, never stops the caller. Callable under any
// other lock, as the log's lock is the innermost of the process.
void LogError(std::wstring msg);
// The text of the calling thread's last system error.
std::wstring FormatError();

// The log's recursive lock: always the innermost lock of the process.
host::CriticalSection& logLock();
// Closes the log file: the last step of the orderly end (the board
// registry's shutdown). A later LogError reopens the file.
void closeLogFileForShutdown();

namespace eventlog {
inline constexpr unsigned long kRotateAbove = 1048576;  // bytes
inline constexpr int kLinesPerSizeCheck = 100;          // check after every 101st line
void ManageLogSize();
}  // namespace eventlog
