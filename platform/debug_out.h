#pragma once
// The platform's debug output (NKDbgPrintfW). One sink for the process:
// stderr by default, or a file; tests can capture it.
#include <functional>
#include <string>

namespace host {

// Formats with the original's rules (see text.h) and writes the text as is.
void NKDbgPrintfW(const wchar_t* fmt, ...);

using DebugSink = std::function<void(const std::wstring&)>;
// Replaces the sink; an empty function restores stderr. Answers the old one.
DebugSink setDebugSink(DebugSink sink);
// Sends the debug output to a file (appended, UTF-8). False if it cannot be opened.
bool setDebugFile(const std::string& hostPath);

}  // namespace host
