#include "platform/sync.h"

#include <atomic>
#include <map>
#include <memory>

#include "platform/clock.h"
#include "platform/files.h"
#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/shared_event.h"
#include "platform/text.h"
#include "platform/waitable.h"

namespace host {
namespace {

class Event final : public Waitable {
  public:
    Event(bool manualReset, bool initial) : Waitable(manualReset, initial) {}
    std::atomic<DWORD> data{0};
    // Named events on an existing unit root: the state every process of that
    // root sees (shared_event.h); then the members above are unused.
    std::unique_ptr<SharedEventState> shared;
    // Waits of the shared state on a virtual clock.
    std::mutex sharedMutex;
    std::condition_variable sharedWoken;
};

struct NamedEvents {
    std::mutex mutex;
    std::map<std::wstring, std::weak_ptr<Event>> byName;  // lower-cased names
};

NamedEvents& namedEvents() {
    static NoDestructor<NamedEvents> n;
    return *n;
}

std::wstring lowered(const wchar_t* name) {
    std::wstring s(name);
    for (auto& c : s) c = static_cast<wchar_t>(std::towlower(c));
    return s;
}

std::shared_ptr<Event> eventOf(HANDLE h) {
    auto e = lookupAs<Event>(h);
    if (!e) SetLastError(ERROR_INVALID_HANDLE);
    return e;
}

}  // namespace

bool Waitable::wait(DWORD timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    bool ok = clock().waitFor(cv_, lock, timeoutMs, [this] { return signalled_; });
    if (ok && !manualReset_) signalled_ = false;
    return ok;
}

HANDLE CreateEventW(bool manualReset, bool initialState, const wchar_t* name) {
    if (!name || !*name) {
        SetLastError(0);
        return addHandle(std::make_shared<Event>(manualReset, initialState));
    }
    auto& named = namedEvents();
    std::lock_guard<std::mutex> lock(named.mutex);
    const std::string root = unitRoot();
    const std::wstring lowName = lowered(name);
    // One object per root and name within the process.
    const std::wstring key = widen(root) + L'\n' + lowName;
    if (auto existing = named.byName[key].lock()) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return addHandle(existing);
    }
    auto event = std::make_shared<Event>(manualReset, initialState);
    bool heldElsewhere = false;
    event->shared = SharedEventState::open(root, lowName, manualReset, initialState, heldElsewhere);
    named.byName[key] = event;
    SetLastError(heldElsewhere ? ERROR_ALREADY_EXISTS : 0);
    return addHandle(event);
}

BOOL SetEvent(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    if (e->shared) {
        {
            std::lock_guard<std::mutex> lock(e->sharedMutex);
            e->shared->set();
        }
        e->sharedWoken.notify_all();
    } else {
        e->signal();
    }
    return TRUE_;
}

BOOL ResetEvent(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    if (e->shared)
        e->shared->reset();
    else
        e->reset();
    return TRUE_;
}

BOOL SetEventData(HANDLE event, DWORD data) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    if (e->shared)
        e->shared->setData(data);
    else
        e->data = data;
    return TRUE_;
}

DWORD GetEventData(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return 0;
    SetLastError(0);
    return e->shared ? e->shared->data() : e->data.load();
}

namespace {

bool waitShared(Event& e, DWORD timeoutMs) {
    SharedEventState& state = *e.shared;
    if (state.take()) return true;
    if (timeoutMs == 0) return false;
    if (dynamic_cast<RealClock*>(&clock()) != nullptr) {
        // Real time: sleep on the futex for whatever is left of the wait.
        const DWORD start = GetTickCount();
        for (;;) {
            DWORD left = INFINITE;
            if (timeoutMs != INFINITE) {
                const DWORD elapsed = GetTickCount() - start;
                if (elapsed >= timeoutMs) return state.take();
                left = timeoutMs - elapsed;
            }
            state.sleepWhileUnsignalled(left);
            if (state.take()) return true;
        }
    }
    // Virtual time (tests): the clock decides when the wait ends; it looks
    // at the shared word in short real slices, so a signal from another
    // process is seen too, and SetEvent in this process wakes it at once.
    std::unique_lock<std::mutex> lock(e.sharedMutex);
    if (timeoutMs != INFINITE)
        return clock().waitFor(e.sharedWoken, lock, timeoutMs, [&] { return state.take(); });
    while (!state.take()) e.sharedWoken.wait_for(lock, std::chrono::milliseconds(1));
    return true;
}

}  // namespace

DWORD WaitForSingleObject(HANDLE object, DWORD timeoutMs) {
    if (auto e = lookupAs<Event>(object); e && e->shared)
        return waitShared(*e, timeoutMs) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    auto w = lookupAs<Waitable>(object);
    if (!w) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return w->wait(timeoutMs) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

}  // namespace host
