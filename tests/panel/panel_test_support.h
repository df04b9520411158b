#pragma once
// Shared pieces of the panel tests: a manual clock in force for the test, and
// waiting (in real time, briefly) for what another thread is about to do.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "platform/clock.h"

namespace panel_test {

// True once `condition` holds, false if it still does not after `limit`.
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

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class ManualClockTest : public ::testing::Test {
  protected:
    std::shared_ptr<host::ManualClock> clock_ = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock_{clock_};
};

}  // namespace panel_test
