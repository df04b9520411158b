#pragma once
// A worker thread that polls: its body pauses between rounds with pause(),
// which a stop request cuts short, so the owner can end and join the thread at
// once whatever the polling period. Setting wakeEvent() (a device reporting a
// change, say) also ends the pause under way.
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "platform/win_types.h"

namespace panel {

class PollThread {
  public:
    PollThread();
    ~PollThread();
    PollThread(const PollThread&) = delete;
    PollThread& operator=(const PollThread&) = delete;

    // Starts `body` in a new host thread; false when no thread could be made.
    bool start(std::function<void()> body, int priority, const std::string& name);
    // Asks the body to end and waits until it has. `stoppingPriority` (if not
    // negative) is given to the thread meanwhile. From the thread itself the
    // request is only made, not awaited.
    void halt(int stoppingPriority = -1);

    bool stopRequested() const { return stop_.load(); }
    // Waits `ms` on the host clock, or less when woken; false (at once) once
    // a stop was requested.
    bool pause(DWORD ms);
    // Waits until woken, however long that takes; false once stopped.
    bool waitForWake();
    HANDLE wakeEvent() const { return wake_; }
    // The body has started and not yet returned.
    bool running() const { return running_.load(); }
    HANDLE handle() const { return thread_; }

  private:
    std::atomic<bool> stop_{true};
    std::atomic<bool> running_{false};
    // Compared without the host layer: halt() also runs during static
    // destruction, after the host's per-thread records are gone.
    std::atomic<std::thread::id> threadId_{};
    HANDLE wake_;  // auto-reset: each wake ends one wait
    HANDLE thread_ = NULL_HANDLE;
};

}  // namespace panel
