#include "platform/debug_out.h"

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>

#include "platform/text.h"

namespace host {
namespace {

struct Sink {
    std::mutex mutex;
    std::deque<std::wstring> lines;  // the history's whole lines
    std::wstring partial;
    DebugSink sink;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{nullptr, &std::fclose};
};

Sink& sink() {
    static Sink s;
    return s;
}

void remember(Sink& s, const std::wstring& text) {
    for (wchar_t c : text) {
        if (c != L'\n') {
            s.partial += c;
            if (s.partial.size() < DebugHistory::kDebugHistoryLineChars) continue;
        }
        s.lines.push_back(std::move(s.partial));
        s.partial.clear();
        if (s.lines.size() > DebugHistory::kDebugHistoryLines) s.lines.pop_front();
    }
}

}  // namespace

void NKDbgPrintfW(const wchar_t* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::wstring text = vwformat(fmt, args);
    va_end(args);
    auto& s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    remember(s, text);
    if (s.sink) {
        s.sink(text);
        return;
    }
    std::string bytes = narrow(text);
    std::FILE* out = s.file ? s.file.get() : stderr;
    std::fwrite(bytes.data(), 1, bytes.size(), out);
    std::fflush(out);
}

DebugSink setDebugSink(DebugSink newSink, DebugHistory* history) {
    auto& s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (history) {
        history->recentLines.assign(s.lines.begin(), s.lines.end());
        history->unfinishedLine = s.partial;
    }
    DebugSink old = std::move(s.sink);
    s.sink = std::move(newSink);
    return old;
}

bool setDebugFile(const std::string& hostPath) {
    std::FILE* f = std::fopen(hostPath.c_str(), "a");
    if (!f) return false;
    auto& s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.file.reset(f);
    return true;
}

}  // namespace host
