#pragma once
// The thread of an LED blinker: runs one pass after another until stopped.
// Its pauses are timed waits on the host clock that a stop cuts short, so a
// blinker can be destroyed at once and never leaves its thread behind.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "platform/win_types.h"

class BlinkerThread {
  public:
    BlinkerThread() = default;
    // Stops the thread and waits for it.
    ~BlinkerThread();
    BlinkerThread(const BlinkerThread&) = delete;
    BlinkerThread& operator=(const BlinkerThread&) = delete;

    // Starts `pass` in a loop at normal priority; false when no thread could be made.
    bool start(std::function<void()> pass, const std::string& name);
    // Ends the loop after the current pass and waits for the thread to end.
    void stop();
    // For the pass: waits `ms` of host-clock time, less if the thread is stopped.
    void pause(DWORD ms);
    bool running() const { return running_.load(); }

  private:
    std::atomic<bool> running_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
    HANDLE thread_ = NULL_HANDLE;
};
