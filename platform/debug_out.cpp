#include "platform/debug_out.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

#include "platform/text.h"

namespace host {
namespace {

struct Sink {
    std::mutex mutex;
    DebugLines history;
    DebugSink sink;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{nullptr, &std::fclose};
};

std::atomic<int> silences{0};

Sink& sink() {
    static Sink s;
    return s;
}

}  // namespace

void DebugLines::add(const std::wstring& text) {
    for (wchar_t c : text) {
        if (c != L'\n') {
            unfinished += c;
            if (unfinished.size() < DebugHistory::kDebugHistoryLineChars) continue;
        }
        whole.push_back(std::move(unfinished));
        unfinished.clear();
        if (whole.size() > kept) whole.pop_front();
    }
}

void NKDbgPrintfW(const wchar_t* fmt, ...) {
    if (silences.load(std::memory_order_relaxed) > 0) return;
    va_list args;
    va_start(args, fmt);
    std::wstring text = vwformat(fmt, args);
    va_end(args);
    auto& s = sink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.history.add(text);
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
        history->recentLines.assign(s.history.whole.begin(), s.history.whole.end());
        history->unfinishedLine = s.history.unfinished;
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

DebugSilence::DebugSilence() {
    ++silences;
}
DebugSilence::~DebugSilence() {
    --silences;
}

}  // namespace host
