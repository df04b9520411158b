#pragma once
// The platform's debug output (NKDbgPrintfW). One sink for the process:
// stderr by default, or a file; tests can capture it.
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace host {

// Formats with the original's rules (see text.h) and writes the text as is.
void NKDbgPrintfW(const wchar_t* fmt, ...);

using DebugSink = std::function<void(const std::wstring&)>;

// What was written to the debug output lately, whatever the sink: the last
// kDebugHistoryLines whole lines, oldest first, and an unfinished line.
struct DebugHistory {
    static constexpr std::size_t kDebugHistoryLines = 200;
    static constexpr std::size_t kDebugHistoryLineChars = 512;
    std::vector<std::wstring> recentLines;
    std::wstring unfinishedLine;
};

// Written text cut into lines the way the history keeps them: the last
// `kept` whole lines, oldest first, and the unfinished one. Most messages end
// without a newline, so a "line" can gather any number of them: one longer
// than kDebugHistoryLineChars counts as ended there, which keeps the memory
// bounded whatever a client provokes.
struct DebugLines {
    std::size_t kept = DebugHistory::kDebugHistoryLines;
    std::deque<std::wstring> whole;
    std::wstring unfinished;

    void add(const std::wstring& text);
};

// Replaces the sink; an empty function restores stderr. Answers the old one.
// With `history`, also answers what was written before, so that a new sink
// (the status window) can show it; nothing is written in between.
DebugSink setDebugSink(DebugSink sink, DebugHistory* history = nullptr);
// Sends the debug output to a file (appended, UTF-8). False if it cannot be opened.
bool setDebugFile(const std::string& hostPath);

// While one lives, debug output is dropped before it is formatted and is not
// remembered: for tools and fuzzing that run the unit's code only for what it
// answers, where formatting would cost more than the work itself.
class DebugSilence {
  public:
    DebugSilence();
    ~DebugSilence();
    DebugSilence(const DebugSilence&) = delete;
    DebugSilence& operator=(const DebugSilence&) = delete;
};

}  // namespace host
