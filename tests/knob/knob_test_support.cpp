#include "knob_test_support.h"

#include <thread>

#include "device/platform_id.h"
#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/sync.h"

namespace knob_test {

void Recorder::newValue(int count, float rate) {
    std::lock_guard<std::mutex> lock(mutex_);
    counts_.push_back(count);
    rates_.push_back(rate);
}

std::vector<int> Recorder::counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

std::vector<float> Recorder::rates() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return rates_;
}

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
    resetPlatformForTests();
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
    resetPlatformForTests();
}

void CounterKnobTest::usePlatform(const std::string& name) {
    root_.namePlatform(name);
    resetPlatformForTests();
}

void CounterKnobTest::signalCounter(DWORD value) {
    host::SetEventData(rotaryEvent_, value);
    host::SetEvent(rotaryEvent_);
}

void CounterKnobTest::waitUntilMonitoring(Knob& knob) {
    ASSERT_TRUE(advanceUntil(*clock_, 50, [&] { return knob.eventMonitorReady(); }));
}

}  // namespace knob_test
