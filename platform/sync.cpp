#include "platform/sync.h"

#include <atomic>
#include <map>
#include <memory>

#include "platform/clock.h"
#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/text.h"
#include "platform/waitable.h"

namespace host {
namespace {

class Event final : public Waitable {
  public:
    Event(bool manualReset, bool initial) : Waitable(manualReset, initial) {}
    std::atomic<DWORD> data{0};
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
    std::wstring key = lowered(name);
    if (auto existing = named.byName[key].lock()) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return addHandle(existing);
    }
    auto event = std::make_shared<Event>(manualReset, initialState);
    named.byName[key] = event;
    SetLastError(0);
    return addHandle(event);
}

BOOL SetEvent(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    e->signal();
    return TRUE_;
}

BOOL ResetEvent(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    e->reset();
    return TRUE_;
}

BOOL SetEventData(HANDLE event, DWORD data) {
    auto e = eventOf(event);
    if (!e) return FALSE_;
    e->data = data;
    return TRUE_;
}

DWORD GetEventData(HANDLE event) {
    auto e = eventOf(event);
    if (!e) return 0;
    SetLastError(0);
    return e->data.load();
}

DWORD WaitForSingleObject(HANDLE object, DWORD timeoutMs) {
    auto w = lookupAs<Waitable>(object);
    if (!w) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return w->wait(timeoutMs) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

}  // namespace host
