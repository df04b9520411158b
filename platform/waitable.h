#pragma once
// Internal to the host layer: kernel objects that WaitForSingleObject can wait on.
#include <condition_variable>
#include <mutex>

#include "platform/handles.h"

namespace host {

class Waitable : public KernelObject {
  public:
    explicit Waitable(bool manualReset, bool signalled)
        : manualReset_(manualReset), signalled_(signalled) {}

    void signal() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            signalled_ = true;
        }
        cv_.notify_all();
    }
    void reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        signalled_ = false;
    }
    bool isSignalled() {
        std::lock_guard<std::mutex> lock(mutex_);
        return signalled_;
    }
    // Waits on the clock in force; an auto-reset object is consumed by the
    // one waiter that sees it signalled.
    bool wait(DWORD timeoutMs);

  private:
    const bool manualReset_;
    bool signalled_;
    std::mutex mutex_;
    std::condition_variable cv_;
};

}  // namespace host
