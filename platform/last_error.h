#pragma once
// Per-thread last error and the system message table.
#include <optional>
#include <string>

#include "platform/win_types.h"

namespace host {

DWORD GetLastError();
void SetLastError(DWORD code);

// The system's text for an error code, as FormatMessageW gives it (ending in
// "\r\n"); nullopt for a code the table does not know, with the last error set
// to ERROR_MR_MID_NOT_FOUND (317) as the original lookup would.
std::optional<std::wstring> FormatMessageText(DWORD code);

}  // namespace host
