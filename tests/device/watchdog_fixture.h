#pragma once
// Common ground for the watchdog tests: a unit root whose registry names the
// platform, virtual time, captured debug output, and a unit reset caught
// through the process-exit hook instead of ending the test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "device/platform_id.h"
#include "device/watchdog.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "sim/watchdog_unit.h"
#include "tests/support/test_support.h"
#include "tests/support/waiting.h"

class WatchdogTest : public ::testing::Test {
  protected:
    struct UnitReset : std::runtime_error {
        UnitReset() : std::runtime_error("unit reset") {}
    };

    void SetUp() override {
        resetPlatformForTest();
        previousExit_ = host::setExitHandler([this](int code) {
            resetTick_ = time_->tickCount();
            exitCode_ = code;
            throw UnitReset();
        });
    }
    void TearDown() override {
        WatchDog::resetSingletonForTest();
        resetPlatformForTest();
        host::setExitHandler(previousExit_);
    }

    void onPlatform(const std::string& name) { root_.namePlatform(name); }
    void onKtx() { onPlatform("Kestrix Platform"); }
    void onVbq() { onPlatform("VBQ"); }

    // Waits (in real time, briefly) for the simulated unit to be reset;
    // answers the exit code, 0 when there was no reset.
    int resetCode(std::chrono::milliseconds within = std::chrono::milliseconds(3000)) {
        testing_support::eventually([this] { return exitCode_ != 0; }, within);
        return exitCode_;
    }
    // Gives the monitor thread time to look at the clock (it looks within a
    // millisecond of real time after the time moved).
    bool stillRunning() { return resetCode(std::chrono::milliseconds(100)) == 0; }
    // Waits until the watchdog monitors have started waiting on the clock, so
    // that the next move of the time is seen as a move.
    void monitorsWaiting(int count = 1) {
        testing_support::eventually([&] { return time_->waiters() >= count; });
    }

    // Armed and never serviced, the simulated unit is reset at 127 s and not sooner.
    void expectResetAfter127SecondsUnserviced() {
        WatchDog::Singleton();
        monitorsWaiting();
        time_->advance(126999);
        EXPECT_TRUE(stillRunning());
        time_->advance(1);
        EXPECT_EQ(resetCode(), sim::kWatchdogResetExitCode);
        EXPECT_TRUE(debug_.contains(L"SIMULATED HARDWARE WATCHDOG EXPIRED"));
        EXPECT_TRUE(testing_support::logContains(L"Hardware watchdog expired"));
    }

    testing_support::TempUnitRoot root_;
    std::shared_ptr<host::ManualClock> time_ = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock_{time_};
    testing_support::DebugCapture debug_;
    std::atomic<int> exitCode_{0};
    std::atomic<DWORD> resetTick_{0};  // the virtual time of the reset
    host::ExitHandler previousExit_;
};

// The watchdog on KTX (the vendor library) or on VBQ (the operating-system
// timer registers).
template <bool kKtx>
class WatchDogOn : public WatchdogTest {
  protected:
    void SetUp() override {
        WatchdogTest::SetUp();
        kKtx ? onKtx() : onVbq();
    }
};
using KtxWatchDog = WatchDogOn<true>;
using VbqWatchDog = WatchDogOn<false>;
