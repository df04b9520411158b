#pragma once
// Waiting in tests for what another thread is about to do: briefly in real
// time, or by moving a manual clock on until it has happened.
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "platform/clock.h"

namespace testing_support {

// True once `condition` holds, false if it still does not after `limit` of real time.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(5));

// Moves virtual time on in `step`s until `condition` holds (or real time runs out).
bool advanceUntil(host::ManualClock& clock, DWORD step, const std::function<bool()>& condition,
                  std::chrono::milliseconds limit = std::chrono::seconds(5));

// Keeps moving virtual time on from a thread of its own while it lives, so a
// call that waits on the clock can time out.
class ClockPusher {
  public:
    ClockPusher(host::ManualClock& clock, DWORD step);
    ~ClockPusher();
    ClockPusher(const ClockPusher&) = delete;
    ClockPusher& operator=(const ClockPusher&) = delete;

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace testing_support
