#include "app/message_channels.h"

#include <condition_variable>
#include <memory>
#include <mutex>

#include "boards/error_log.h"
#include "platform/debug_out.h"

namespace {

// The debug output takes at most this many characters per message.
constexpr std::size_t kDebugOutputLimit = 511;

// One registration of a display, with the number of calls still running on
// it. Unregistering waits for those calls, so the display can be destroyed
// right after; calls made meanwhile already see the new registration.
struct Registration {
    StatusDisplay* display = nullptr;
    int callsInFlight = 0;
};

struct DisplaySlot {
    std::mutex mutex;
    std::condition_variable idle;
    std::shared_ptr<Registration> current;
};

DisplaySlot& slot() {
    static DisplaySlot s;
    return s;
}

// The registration whose StatusMsg this thread is inside of, so that a
// display may unregister itself from within StatusMsg without waiting on
// its own call.
thread_local const Registration* callingInto = nullptr;

void handToDisplay(const std::wstring& text) {
    auto& s = slot();
    std::shared_ptr<Registration> registration;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.current) return;
        registration = s.current;
        ++registration->callsInFlight;
    }
    const Registration* outer = callingInto;
    callingInto = registration.get();
    try {
        registration->display->StatusMsg(text);
    } catch (...) {
        // A display that cannot take the text must not stop the reporter.
    }
    callingInto = outer;
    std::lock_guard<std::mutex> lock(s.mutex);
    --registration->callsInFlight;
    s.idle.notify_all();
}

}  // namespace

void setStatusDisplay(StatusDisplay* display) {
    auto& s = slot();
    std::unique_lock<std::mutex> lock(s.mutex);
    std::shared_ptr<Registration> previous = std::move(s.current);
    if (display != nullptr) {
        s.current = std::make_shared<Registration>();
        s.current->display = display;
    }
    if (!previous) return;
    const int own = callingInto == previous.get() ? 1 : 0;
    s.idle.wait(lock, [&] { return previous->callsInFlight <= own; });
}

void traceAndLog(std::wstring text) {
    std::wstring shown = text.substr(0, kDebugOutputLimit);
    host::NKDbgPrintfW(L"%s", shown.c_str());
    LogError(std::move(text));
}

void statusMessage(std::wstring text) {
    traceAndLog(text);
    handToDisplay(text);
}

void debugMessage(std::wstring text) {
    traceAndLog(L"DEBUG: " + text);
}
