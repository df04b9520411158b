#include "knob_test_support.h"

#include "device/platform_id.h"
#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/sync.h"

namespace knob_test {

void feed(Knob& knob, std::initializer_list<int> codes) {
    for (int code : codes) knob.newValue(static_cast<MultiDigitalInput*>(nullptr), code);
}

void KnobTest::waitForUpdaterPause(int timedWaiters) {
    ASSERT_TRUE(eventually([&] { return clock_->waiters() >= timedWaiters; }));
}

void KnobTest::nextRound() {
    clock_->advance(Knob::notifyPeriodMs);
}

void CounterKnobTest::SetUp() {
    resetPlatformForTest();
    // One chip for the process: the SPI port keeps the device it opened first.
    static const std::shared_ptr<sim::Ls7366rCounter> chip = sim::installSpiCounter(1, 1);
    chip_ = chip;
    chip_->reset();
    rotaryEvent_ = host::CreateEventW(false, false, Knob::rotaryEventName);
    host::SetEventData(rotaryEvent_, 0);
    host::ResetEvent(rotaryEvent_);
}

void CounterKnobTest::TearDown() {
    host::CloseHandle(rotaryEvent_);
    resetPlatformForTest();
}

void CounterKnobTest::usePlatform(const std::string& name) {
    root_.namePlatform(name);
    resetPlatformForTest();
}

void CounterKnobTest::signalCounter(DWORD value) {
    host::SetEventData(rotaryEvent_, value);
    host::SetEvent(rotaryEvent_);
}

void CounterKnobTest::waitUntilMonitoring(Knob& knob) {
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.eventMonitorReady(); }));
}

}  // namespace knob_test
