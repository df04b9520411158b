#pragma once
// IOUpdater: a thread that serves one IOUpdateOwner. Every `period` ms, and
// whenever the owner asks for it at once, it takes the owner's pending events
// one by one and tells each of its listeners about each event.
#include <algorithm>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "panel/poll_thread.h"
#include "platform/sync.h"
#include "platform/thread.h"

class IOUpdateOwner {
  public:
    virtual ~IOUpdateOwner() = default;
    virtual bool hasEvents() = 0;
    virtual void removeEvent() = 0;
};

// `Listener` is the owner's listener interface; `notify` tells one listener
// about the event just removed (the owner knows what to hand it).
template <class Listener>
class IOUpdater {
  public:
    using Notify = std::function<void(Listener&)>;

    IOUpdater(IOUpdateOwner& owner, DWORD period, Notify notify,
              int priority = host::THREAD_PRIORITY_NORMAL)
        : owner_(owner), period_(period), priority_(priority), notify_(std::move(notify)) {
        thread_.start([this] { run(); }, priority_, "IOUpdater");
    }
    // Stops the thread (raised to priority 1 meanwhile) and waits for it.
    ~IOUpdater() { thread_.halt(host::THREAD_PRIORITY_HIGHEST); }
    IOUpdater(const IOUpdater&) = delete;
    IOUpdater& operator=(const IOUpdater&) = delete;

    void addListener(Listener* listener) {
        if (!listener) return;
        host::LockGuard guard(listenersLock_);
        listeners_.push_back(listener);
    }
    // Removes the first entry equal to `listener`; false when there is none.
    // Waits for a dispatch in progress on another thread, so the caller may
    // destroy the listener as soon as this returns.
    bool removeListener(Listener* listener) {
        host::LockGuard dispatching(dispatchLock_);
        host::LockGuard guard(listenersLock_);
        auto it = std::find(listeners_.begin(), listeners_.end(), listener);
        if (it == listeners_.end()) return false;
        listeners_.erase(it);
        return true;
    }
    std::vector<Listener*> listeners() const {
        host::LockGuard guard(listenersLock_);
        return listeners_;
    }

    // While the owner has events: remove one, tell every listener in list
    // order. One dispatch runs at a time, so listeners never hear about two
    // events at once even when the owner also dispatches from its own thread.
    void dispatch() {
        host::LockGuard guard(dispatchLock_);
        while (owner_.hasEvents()) {
            owner_.removeEvent();
            notifyAll();
        }
    }
    // Tells every listener once, whatever the owner's events.
    void notifyAll() {
        host::LockGuard guard(dispatchLock_);
        // A copy, so that a listener may add or remove listeners meanwhile;
        // one removed by an earlier listener is no longer told.
        for (Listener* listener : listeners())
            if (isListening(listener)) notify_(*listener);
    }

    DWORD period() const { return period_; }
    int priority() const { return priority_; }
    bool running() const { return thread_.running(); }

  private:
    bool isListening(Listener* listener) const {
        host::LockGuard guard(listenersLock_);
        return std::find(listeners_.begin(), listeners_.end(), listener) != listeners_.end();
    }
    void run() {
        while (!thread_.stopRequested()) {
            dispatch();
            if (!thread_.pause(period_)) break;
        }
    }

    IOUpdateOwner& owner_;
    const DWORD period_;
    const int priority_;
    const Notify notify_;
    mutable host::CriticalSection listenersLock_;
    std::vector<Listener*> listeners_;
    host::CriticalSection dispatchLock_;
    panel::PollThread thread_;  // last: it goes first
};
