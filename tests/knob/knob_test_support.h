#pragma once
// Shared pieces of the knob tests: virtual time, a listener that records what
// it hears, a unit root that names the platform, and the simulated counter.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "panel/knob.h"
#include "panel/multi_digital_input.h"
#include "platform/clock.h"
#include "sim/spi_counter.h"
#include "tests/support/recorded.h"
#include "tests/support/test_support.h"
#include "tests/support/waiting.h"

namespace knob_test {

using testing_support::advanceUntil;
using testing_support::ClockPusher;
using testing_support::eventually;

class Recorder : public KnobEventListener {
  public:
    void newValue(int count, float rate) override {
        rates_.add(rate);
        counts_.add(count);
    }
    std::vector<int> counts() const { return counts_.values(); }
    std::vector<float> rates() const { return rates_.values(); }
    std::size_t calls() const { return counts_.count(); }

  private:
    testing_support::Recorded<int> counts_;
    testing_support::Recorded<float> rates_;
};

// Feeds line codes to a knob as its multi-bit input would.
void feed(Knob& knob, std::initializer_list<int> codes);

class KnobTest : public ::testing::Test {
  protected:
    // Waits until the knob's updater sleeps between rounds, so that what a test
    // does next is seen by the round that the next advance() starts.
    void waitForUpdaterPause(int timedWaiters = 1);
    // One round of the updater: 50 ms of virtual time.
    void nextRound();

    std::shared_ptr<host::ManualClock> clock_ = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock_{clock_};
    testing_support::TempUnitRoot root_;
};

// A unit whose registry names its platform, the event "RotaryEvent" held
// open by the test, and the simulated LS7366R on "SPI1:".
class CounterKnobTest : public KnobTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    void usePlatform(const std::string& name);
    // Sets the event data and the event, as the SPI monitor does.
    void signalCounter(DWORD value);
    // Lets the knob's event monitor take its starting point.
    void waitUntilMonitoring(Knob& knob);

    HANDLE rotaryEvent_ = NULL_HANDLE;
    std::shared_ptr<sim::Ls7366rCounter> chip_;
};

}  // namespace knob_test
