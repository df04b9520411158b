#pragma once
// The end of a soak run, which every loop of it waits on between its steps.
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace soak {

class StopSignal {
  public:
    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
    }
    bool stopped() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }
    // Waits `pause` or until the run stops; true while the run goes on.
    bool pause(std::chrono::milliseconds pause) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return !changed_.wait_for(lock, pause, [this] { return stopped_; });
    }

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool stopped_ = false;
};

}  // namespace soak
