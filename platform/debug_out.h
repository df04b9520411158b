#pragma once
// The platform's debug output (NKDbgPrintfW). One sink for the process:
// stderr by default, or a file; tests can capture it.
#include <functional>
#include <string>
#include <vector>

namespace host {

// Formats with the original's rules (see text.h) and writes the text as is.
void NKDbgPrintfW(const wchar_t* fmt, ...);

using DebugSink = std::function<void(const std::wstring&)>;

// What was written to the debug output lately, whatever the sink: the last
// kDebugHistoryLines whole lines, oldest first, and an unfinished line.
// Most messages end without a newline, so a "line" can gather any number of
// them: a line longer than kDebugHistoryLineChars counts as ended there,
// which keeps the history's memory bounded whatever a client provokes.
struct DebugHistory {
    static constexpr std::size_t kDebugHistoryLines = 200;
    static constexpr std::size_t kDebugHistoryLineChars = 512;
    std::vector<std::wstring> recentLines;
    std::wstring unfinishedLine;
};

// Replaces the sink; an empty function restores stderr. Answers the old one.
// With `history`, also answers what was written before, so that a new sink
// (the status window) can show it; nothing is written in between.
DebugSink setDebugSink(DebugSink sink, DebugHistory* history = nullptr);
// Sends the debug output to a file (appended, UTF-8). False if it cannot be opened.
bool setDebugFile(const std::string& hostPath);

}  // namespace host
