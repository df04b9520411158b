#pragma once
// The text of the calling thread's last system error, for the panel's debug
// messages.
#include <string>

namespace panel {

// The system's message for the last error, or "Error Detail unavailable."
// when the system has none.
std::wstring lastErrorText();
// Writes `prefix` and an error text to the debug output as one line.
void printErrorText(const wchar_t* prefix, const std::wstring& text);
// The same with the last error's text.
void printLastError(const wchar_t* prefix);

}  // namespace panel
