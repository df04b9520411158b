#include "sim/watchdog_hardware.h"
#include "sim/watchdog_linux_device.h"
#include "tests/device/watchdog_fixture.h"

namespace {

using sim::OsTimerBlock;
using sim::VendorWatchdogLibrary;

// A simulated unit of one platform: the vendor watchdog on KTX, the OS timer
// block on VBQ.
using SimulatedKtxUnit = KtxWatchDog;
using SimulatedVbqUnit = VbqWatchDog;

// --- the simulated vendor watchdog ------------------------------------------

TEST_F(SimulatedKtxUnit, UnservicedWatchdogResetsTheUnitAfter127Seconds) {
    VendorWatchdogLibrary library;
    expectResetAfter127SecondsUnserviced();
}

TEST_F(SimulatedKtxUnit, ServicingEvery60SecondsKeepsTheUnitUp) {
    VendorWatchdogLibrary library;
    WatchDog* dog = WatchDog::Singleton();
    for (int minute = 0; minute < 10; ++minute) {
        time_->advance(60000);
        dog->service();
    }
    EXPECT_TRUE(stillRunning());
    auto state = sim::watchdogState();
    EXPECT_TRUE(state.armed);
    EXPECT_FALSE(state.expired);
    EXPECT_EQ(state.intervalMs, 127000u);
    EXPECT_EQ(state.sinceServiceMs, 0u);
    time_->advance(5000);
    EXPECT_EQ(sim::watchdogState().sinceServiceMs, 5000u);
    EXPECT_EQ(sim::watchdogState().remainingMs, 122000u);
}

TEST_F(SimulatedKtxUnit, UnstartedWatchdogNeverResets) {
    VendorWatchdogLibrary library({.start = false});
    WatchDog::Singleton();
    time_->advance(1000000);
    EXPECT_TRUE(stillRunning());
    EXPECT_FALSE(sim::watchdogState().armed);
}

TEST_F(SimulatedKtxUnit, LinuxDeviceFailuresAreReportedAndTheSimulationGoesOn) {
    // Not a watchdog: its requests fail.
    ASSERT_TRUE(sim::useLinuxWatchdogDevice("/dev/null", nullptr, /*requireWatchdog=*/false));
    VendorWatchdogLibrary library;
    WatchDog* dog = WatchDog::Singleton();
    dog->service();
    ASSERT_TRUE(sim::useLinuxWatchdogDevice(""));
    EXPECT_TRUE(debug_.contains(L"/dev/null: WDIOC_SETTIMEOUT failed"));
    EXPECT_TRUE(debug_.contains(L"/dev/null: WDIOC_KEEPALIVE failed"));
    time_->advance(127000);
    EXPECT_EQ(resetCode(), sim::kWatchdogResetExitCode);
}

TEST_F(SimulatedKtxUnit, UnwritableOrNonWatchdogDevicesAreRefusedWithTheReason) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"plain", "not a device");
    const struct {
        std::string path;
        std::string reason;
    } cases[] = {{"/nonexistent/watchdog", "cannot write /nonexistent/watchdog"},
                 {root.path() + "/plain", "not a watchdog device (not a character device)"},
                 {"/dev/null", "not a watchdog device (character device 1:3)"}};
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(sim::useLinuxWatchdogDevice(c.path, &error)) << c.path;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
        EXPECT_EQ(sim::linuxWatchdogDevicePath(), "");
    }
}

// --- the simulated timer block ----------------------------------------------

TEST_F(SimulatedVbqUnit, CounterRunsAt3686400HzOnTheHostClock) {
    OsTimerBlock timer(100, false);
    EXPECT_EQ(timer.read(OsTimerBlock::OSCR), 100u);
    const auto after = [&](DWORD ms) {
        time_->advance(ms);
        timer.refresh();
        return timer.read(OsTimerBlock::OSCR);
    };
    EXPECT_EQ(after(1000), 100u + 3686400u);
    EXPECT_EQ(after(1), 100u + 3686400u + 3686u);
    EXPECT_EQ(after(4), 100u + 3686400u + 18432u);  // no drift from rounding
}

TEST_F(SimulatedVbqUnit, UnservicedWatchdogResetsTheUnitAfter127Seconds) {
    OsTimerBlock timer;
    expectResetAfter127SecondsUnserviced();
}

TEST_F(SimulatedVbqUnit, ServicingEvery60SecondsKeepsTheUnitUp) {
    OsTimerBlock timer(0xFF000000u);  // the counter wraps on the way
    WatchDog* dog = WatchDog::Singleton();
    for (int minute = 0; minute < 25; ++minute) {
        time_->advance(60000);
        timer.refresh();
        dog->service();
    }
    EXPECT_TRUE(stillRunning());
    auto state = sim::watchdogState();
    EXPECT_TRUE(state.armed);
    EXPECT_EQ(state.intervalMs, 127000u);
    time_->advance(7000);
    state = sim::watchdogState();
    EXPECT_EQ(state.sinceServiceMs, 7000u);
    EXPECT_EQ(state.remainingMs, 120000u);
}

TEST_F(SimulatedVbqUnit, TimerPathDrivesTheLinuxDeviceToo) {
    ASSERT_TRUE(sim::useLinuxWatchdogDevice("/dev/null", nullptr, /*requireWatchdog=*/false));
    OsTimerBlock timer(0, false);
    WatchDog* dog = WatchDog::Singleton();
    timer.refresh();
    EXPECT_TRUE(debug_.contains(L"SIM: watchdog device /dev/null started"));
    EXPECT_TRUE(debug_.contains(L"/dev/null: WDIOC_SETTIMEOUT failed"));
    time_->advance(60000);
    timer.refresh();
    dog->service();
    timer.refresh();
    ASSERT_TRUE(sim::useLinuxWatchdogDevice(""));
    EXPECT_TRUE(debug_.contains(L"/dev/null: WDIOC_KEEPALIVE failed"));
}

TEST_F(SimulatedVbqUnit, MatchWithoutTheWatchdogEnableDoesNotReset) {
    OsTimerBlock timer;
    timer.write(OsTimerBlock::OSMR3, 3686400);
    time_->advance(2000);
    EXPECT_TRUE(stillRunning());
    EXPECT_FALSE(sim::watchdogState().armed);
}

// --- both boards' hardware together ------------------------------------------

TEST_F(WatchdogTest, StateFollowsTheWatchdogThatWasArmed) {
    EXPECT_FALSE(sim::watchdogState().present);
    onVbq();
    sim::WatchdogHardware hardware;
    WatchDog::Singleton();
    auto state = sim::watchdogState();
    EXPECT_TRUE(state.present);
    EXPECT_TRUE(state.armed);
    EXPECT_EQ(state.hardware, L"OS timer match register 3");
    EXPECT_EQ(hardware.vendorLibrary().calls().setTime, 0);
}

}  // namespace
