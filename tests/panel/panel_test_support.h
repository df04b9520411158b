#pragma once
// Shared pieces of the panel tests: a manual clock in force for the test, and
// waiting (in real time, briefly) for what another thread is about to do.
#include <gtest/gtest.h>

#include <memory>

#include "platform/clock.h"
#include "tests/support/waiting.h"

namespace panel_test {

using testing_support::advanceUntil;
using testing_support::ClockPusher;
using testing_support::eventually;

class ManualClockTest : public ::testing::Test {
  protected:
    std::shared_ptr<host::ManualClock> clock_ = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock_{clock_};
};

}  // namespace panel_test
