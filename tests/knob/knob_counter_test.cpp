// The counter-chip knob: the event monitor with its 16-bit deltas, the
// platform's sign and the clamping; the SPI monitor on the KTX platform; and
// stopping both when the knob goes.
#include "knob_test_support.h"
#include "platform/devices.h"
#include "platform/handles.h"
#include "platform/sync.h"

namespace knob_test {
namespace {

using CounterKnob = CounterKnobTest;

TEST_F(CounterKnob, WrapAroundDeltaCountsDownOnVbq) {
    usePlatform("VBQ Board");
    signalCounter(0xFFFE);  // before the monitor starts: its starting point
    Knob knob(0, 1000, 500);
    knob.setIncrementAmount(2);
    waitUntilMonitoring(knob);
    EXPECT_EQ(knob.lastEventData(), 0xFFFE);
    EXPECT_EQ(knob.getCount(), 500);

    signalCounter(0x0001);
    ASSERT_TRUE(eventually([&] { return knob.getCount() == 494; }));
    signalCounter(0x10000 | 0xFFFF);  // only the low 16 bits count: two down
    ASSERT_TRUE(eventually([&] { return knob.getCount() == 498; }));
    EXPECT_FALSE(knob.spiMonitorStarted());
    EXPECT_EQ(chip_->exchanges(), 0);
}

TEST_F(CounterKnob, UnreadablePlatformCountsAsVbq) {
    Knob knob(0, 1000, 500);  // the unit root has no registry
    waitUntilMonitoring(knob);
    signalCounter(3);
    ASSERT_TRUE(eventually([&] { return knob.getCount() == 497; }));
    EXPECT_FALSE(knob.spiMonitorStarted());
}

TEST_F(CounterKnob, KtxReadsTheChipAndCountsUp) {
    usePlatform("Kestrix Platform");
    chip_->setCount(0xFFFE);
    testing_support::DebugCapture debug;
    Knob knob(0, 1000, 500);
    knob.setIncrementAmount(2);
    ASSERT_TRUE(eventually([&] { return host::GetEventData(rotaryEvent_) == 0xFFFE; }));
    EXPECT_EQ(chip_->mdr0(), 0x03);
    EXPECT_EQ(chip_->mdr1(), 0x02);
    EXPECT_EQ(chip_->counterBytes(), 2);
    EXPECT_EQ(chip_->lastBusConfig().chipSelect, 1);
    waitUntilMonitoring(knob);
    EXPECT_EQ(knob.lastEventData(), 0xFFFE);

    chip_->turn(3);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.getCount() == 506; }));
    chip_->turn(-10);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.getCount() == 486; }));

    // In this order, and all there.
    const auto at = [out = debug.all()](const wchar_t* text) {
        return out.find(L"Knob::spiThreadImplementation() " + std::wstring(text));
    };
    EXPECT_LT(at(L"Initialize MDR0...\n"), at(L"PreWrite = "));
    EXPECT_LT(at(L"PreWrite = "), at(L"Initialize MDR1...\n"));
    EXPECT_NE(at(L"Initialize MDR1...\n"), std::wstring::npos);
}

TEST_F(CounterKnob, UnchangedChipDoesNotWakeTheMonitor) {
    usePlatform("Kestrix Platform");
    Knob knob(0, 1000, 500);
    Recorder owner;
    ASSERT_TRUE(knob.takeFocus(0, 1000, 1, 500, &owner, false));
    waitUntilMonitoring(knob);
    // The first reading's wake-up (the same value) may still be on its way.
    ASSERT_TRUE(eventually([&] { return owner.calls() >= 1; }));
    const std::size_t calls = owner.calls();
    const int exchanges = chip_->exchanges();
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return chip_->exchanges() >= exchanges + 5; }));
    EXPECT_EQ(owner.calls(), calls);
    chip_->turn(1);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return owner.calls() == calls + 1; }));
    EXPECT_EQ(owner.counts().back(), 501);
}

TEST_F(CounterKnob, FailedChipReadIsHandedOnAsFFFF) {
    usePlatform("Kestrix Platform");
    // A read that never completes holds the SPI monitor for the port's
    // 1000 ms: should the test stop early, time must move while the knob goes.
    std::unique_ptr<ClockPusher> pusher;
    Knob knob(0, 1000, 500);
    struct PushWhileGoing {
        std::unique_ptr<ClockPusher>& pusher;
        host::ManualClock& clock;
        ~PushWhileGoing() { pusher = std::make_unique<ClockPusher>(clock, 50); }
    } pushWhileGoing{pusher, *clock_};
    waitUntilMonitoring(knob);
    chip_->withholdCompletion(true);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.getCount() == 499; }));
    EXPECT_EQ(knob.lastEventData(), 0xFFFF);
    chip_->withholdCompletion(false);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.getCount() == 500; }));
}

TEST_F(CounterKnob, TurnsPastABoundStopAtItOrWrap) {
    usePlatform("VBQ Board");
    Knob knob(0, 10, 8);
    waitUntilMonitoring(knob);
    signalCounter(0xFFFB);  // five down: up on VBQ
    ASSERT_TRUE(eventually([&] { return knob.lastEventData() == 0xFFFB; }));
    EXPECT_EQ(knob.getCount(), 10);

    knob.setRange(0, 10, 1, 8, true);
    signalCounter(0xFFF6);
    ASSERT_TRUE(eventually([&] { return knob.lastEventData() == 0xFFF6; }));
    EXPECT_EQ(knob.getCount(), 0);

    knob.setRange(0, 10, 1, 2, true);
    signalCounter(0xFFFB);  // five up: down on VBQ
    ASSERT_TRUE(eventually([&] { return knob.lastEventData() == 0xFFFB; }));
    EXPECT_EQ(knob.getCount(), 10);
}

TEST_F(CounterKnob, UnsignedRangeComparesUnsigned) {
    usePlatform("VBQ Board");
    Knob knob(0, 100, 2);
    waitUntilMonitoring(knob);
    signalCounter(5);  // 2 - 5 is below 0 ...
    ASSERT_TRUE(eventually([&] { return knob.lastEventData() == 5; }));
    EXPECT_EQ(knob.getCount(), 0);  // ... signed: stops at lower

    knob.setRange(0u, 100u, 1u, 2u, false);
    signalCounter(10);
    ASSERT_TRUE(eventually([&] { return knob.lastEventData() == 10; }));
    EXPECT_EQ(knob.getCount(), 100);  // unsigned: 0xFFFFFFFD is past upper
}

TEST_F(CounterKnob, FocusOwnerHearsAtOnceAndListenersNothing) {
    usePlatform("VBQ Board");
    Knob knob(0, 100, 50);
    Recorder owner;
    Recorder listener;
    knob.addListener(&listener);
    ASSERT_TRUE(knob.takeFocus(0, 100, 1, 20, &owner, false));
    waitUntilMonitoring(knob);

    signalCounter(0xFFFD);  // three up on VBQ
    ASSERT_TRUE(eventually([&] { return owner.calls() == 1; }));
    EXPECT_EQ(owner.counts(), std::vector<int>{23});
    EXPECT_FALSE(knob.hasEvents());

    ASSERT_TRUE(knob.releaseFocus(&owner));
    EXPECT_EQ(knob.getCount(), 50);
    signalCounter(0xFFFC);
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return listener.calls() == 1; }));
    EXPECT_EQ(listener.counts(), std::vector<int>{51});
    EXPECT_EQ(owner.calls(), 1u);
}

TEST_F(CounterKnob, StopsItsThreadsAtOnceAndLeavesNoHandles) {
    usePlatform("Kestrix Platform");
    {
        Knob first(0, 10, 5);  // opens the SPI port, which stays
        ASSERT_TRUE(eventually([&] { return chip_->exchanges() >= 3; }));
    }
    const std::size_t handles = host::openHandleCountForTest();
    const DWORD now = clock_->tickCount();
    {
        Knob pausing(0, 10, 5);  // both monitors in their first pause
    }
    EXPECT_EQ(clock_->tickCount(), now);  // no time-out needed to stop them
    {
        Knob running(0, 10, 5);
        waitUntilMonitoring(running);
        chip_->turn(2);
        ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return running.getCount() == 7; }));
    }
    EXPECT_EQ(host::openHandleCountForTest(), handles);
}

TEST_F(CounterKnob, KnobsSharingTheEventGoIndependently) {
    usePlatform("VBQ Board");
    Knob staying(0, 100, 50);
    {
        Knob going(0, 100, 50);
        waitUntilMonitoring(going);
        waitUntilMonitoring(staying);
    }
    EXPECT_EQ(staying.getCount(), 50);
    signalCounter(0xFFFF);
    ASSERT_TRUE(eventually([&] { return staying.getCount() == 51; }));
}

TEST_F(CounterKnob, WithoutTheSpiDriverTheEventMonitorStillWorks) {
    usePlatform("Kestrix Platform");
    struct Unplugged {
        std::shared_ptr<host::StreamDriver> driver = host::findStreamDriver(L"SPI1:");
        Unplugged() { host::registerStreamDriver(L"SPI1:", nullptr); }
        ~Unplugged() { host::registerStreamDriver(L"SPI1:", driver); }
    } unplugged;
    Knob knob(0, 100, 50);
    waitUntilMonitoring(knob);
    if (chip_->exchanges() > 0)
        GTEST_SKIP() << "the SPI port was opened by an earlier test in this process";
    signalCounter(2);
    ASSERT_TRUE(eventually([&] { return knob.getCount() == 52; }));
}

}  // namespace
}  // namespace knob_test
