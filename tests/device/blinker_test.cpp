#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "device/dual_led_blinker.h"
#include "device/led_blinker.h"
#include "platform/clock.h"
#include "tests/support/waiting.h"

namespace {

// Virtual time that moves only when the test says so (a manual clock), and
// that records every timed wait begun on it: the test sees how long each
// blinker pause is and then moves the time exactly to its end, so every line
// write happens at a known virtual time.
class SteppingClock final : public host::Clock {
  public:
    DWORD tickCount() override { return time_.tickCount(); }
    void sleep(DWORD ms) override {
        record(ms);
        time_.sleep(ms);
    }
    std::chrono::system_clock::time_point wallTime() override { return time_.wallTime(); }
    bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, DWORD timeoutMs,
                 const std::function<bool()>& ready) override {
        if (timeoutMs != INFINITE) record(timeoutMs);
        return time_.waitFor(cv, lock, timeoutMs, ready);
    }

    // Waits (real time) until the n-th timed wait (from 1) has begun and
    // answers its length; 0 if it never begins. Begun means the blinker's
    // thread sleeps on the clock: an advance before it has taken its wake
    // time would be lost, and the thread would sleep on.
    DWORD wait(std::size_t n) {
        DWORD length = 0;
        testing_support::eventually([&] {
            std::lock_guard<std::mutex> guard(mutex_);
            if (waits_.size() < n || time_.waiters() == 0) return false;
            length = waits_[n - 1];
            return true;
        });
        return length;
    }
    std::size_t waitsBegun() {
        std::lock_guard<std::mutex> guard(mutex_);
        return waits_.size();
    }
    void advance(DWORD ms) { time_.advance(ms); }

  private:
    void record(DWORD ms) {
        std::lock_guard<std::mutex> guard(mutex_);
        waits_.push_back(ms);
    }
    host::ManualClock time_{1000, host::ManualClock::SleepMode::Block};
    std::mutex mutex_;
    std::vector<DWORD> waits_;
};

struct Write {
    char line;
    DWORD tick;
    bool on;
    bool operator==(const Write&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Write& w) {
    return out << w.line << '@' << w.tick << (w.on ? " on" : " off");
}

// Lines that record every write with its virtual time in one shared journal.
struct Journal {
    std::mutex mutex;
    std::vector<Write> writes;
    std::vector<Write> take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(writes, {});
    }
};

class RecordingLine final : public LedLine {
  public:
    RecordingLine(char name, Journal& journal) : name_(name), journal_(journal) {}
    void setOn() override { record(true); }
    void setOff() override { record(false); }
    bool isOn() const override { return on_.load(); }

  private:
    void record(bool on) {
        on_ = on;
        std::lock_guard<std::mutex> lock(journal_.mutex);
        journal_.writes.push_back({name_, host::GetTickCount(), on});
    }
    const char name_;
    Journal& journal_;
    std::atomic<bool> on_{false};
};

class Blinkers : public ::testing::Test {
  protected:
    // Lets the blinker's thread run `passes` pauses to their end, one after
    // the other; answers the lengths of those pauses.
    std::vector<DWORD> run(int passes) {
        std::vector<DWORD> pauses;
        for (int i = 0; i < passes; ++i) {
            DWORD ms = time_->wait(++waited_);
            EXPECT_NE(ms, 0u) << "the blinker never paused";
            if (ms == 0) break;
            pauses.push_back(ms);
            time_->advance(ms);
        }
        time_->wait(waited_ + 1);  // the next pass has written its lines
        return pauses;
    }

    // The blinker's thread has begun its first pause (the dark start), so a
    // mode set now is taken at the end of that pause, never before it.
    void awaitFirstPause() { EXPECT_NE(time_->wait(1), 0u); }

    std::shared_ptr<SteppingClock> time_ = std::make_shared<SteppingClock>();
    host::ScopedClock scoped_{time_};
    std::size_t waited_ = 0;
    Journal journal_;
    RecordingLine a_{'A', journal_};
    RecordingLine b_{'B', journal_};
};

using Writes = std::vector<Write>;
using Pauses = std::vector<DWORD>;

TEST_F(Blinkers, LedBlinkerStartsDarkAndBlinks250OnAnd500Off) {
    LedBlinker green(&a_, 500, 250);
    awaitFirstPause();
    EXPECT_EQ(run(0), Pauses{});  // mode 0: the line was switched off, nothing more
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1000, false}}));
    EXPECT_EQ(time_->wait(1), 50u);

    green.setMode(LedBlinker::ModeBlink);
    for (int bad : {3, -1, 10}) green.setMode(bad);  // ignored
    EXPECT_EQ(green.mode(), LedBlinker::ModeBlink);
    EXPECT_EQ(run(5), (Pauses{50, 250, 500, 250, 500}));
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1050, true},
                                       {'A', 1300, false},
                                       {'A', 1800, true},
                                       {'A', 2050, false},
                                       {'A', 2550, true}}));
}

TEST_F(Blinkers, LedBlinkerSteadyModesWriteOnlyOnAChange) {
    LedBlinker green(&a_, 500, 250);
    awaitFirstPause();
    green.setMode(LedBlinker::ModeOn);
    EXPECT_EQ(run(4), (Pauses{50, 50, 50, 50}));
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1000, false}, {'A', 1050, true}}));
    green.setMode(LedBlinker::ModeOff);
    run(3);
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1250, false}}));
}

TEST_F(Blinkers, DualBlinkerMode6KeepsADarkAndBlinksBThenTakesNewTimes) {
    DualLedBlinker front(&a_, &b_, 200, 200);
    awaitFirstPause();
    front.setMode(6);
    EXPECT_EQ(run(3), (Pauses{50, 200, 200}));
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1000, false},
                                       {'B', 1000, false},
                                       {'B', 1050, true},
                                       {'B', 1250, false},
                                       {'B', 1450, true}}));
    front.setTimes(500, 500);
    // The pause under way ends as it began; the next ones are the new times.
    EXPECT_EQ(run(3), (Pauses{200, 500, 500}));
    EXPECT_EQ(journal_.take(), (Writes{{'B', 1650, false}, {'B', 2150, true}, {'B', 2650, false}}));
}

TEST_F(Blinkers, DualBlinkerMode8FromBothOffLightsAFirstWithTheOnTime) {
    DualLedBlinker front(&a_, &b_, 300, 100);
    awaitFirstPause();
    journal_.take();
    front.setMode(8);
    EXPECT_EQ(run(3), (Pauses{50, 100, 300}));
    EXPECT_EQ(journal_.take(), (Writes{{'A', 1050, true},
                                       {'B', 1050, false},
                                       {'A', 1150, false},
                                       {'B', 1150, true},
                                       {'A', 1450, true},
                                       {'B', 1450, false}}));
}

TEST_F(Blinkers, DualBlinkerMode9BlinksBothInStep) {
    DualLedBlinker front(&a_, &b_, 300, 100);
    awaitFirstPause();
    journal_.take();
    front.setMode(9);
    EXPECT_EQ(run(2), (Pauses{50, 100}));
    EXPECT_EQ(
        journal_.take(),
        (Writes{{'A', 1050, true}, {'B', 1050, true}, {'A', 1150, false}, {'B', 1150, false}}));
}

TEST_F(Blinkers, DualBlinkerBlinkModesSetTheSteadyLineFirst) {
    DualLedBlinker front(&a_, &b_, 300, 100);
    awaitFirstPause();
    journal_.take();
    front.setMode(5);  // A blinks, B on
    EXPECT_EQ(run(3), (Pauses{50, 100, 300}));
    EXPECT_EQ(
        journal_.take(),
        (Writes{{'B', 1050, true}, {'A', 1050, true}, {'A', 1150, false}, {'A', 1450, true}}));
    front.setMode(7);  // A on, B blinks
    run(1);
    EXPECT_EQ(journal_.take(), (Writes{{'B', 1550, false}}));  // A was on already
}

TEST_F(Blinkers, DualBlinkerSteadyModesLightTheirLines) {
    DualLedBlinker front(&a_, &b_, 300, 100);
    awaitFirstPause();
    journal_.take();
    const std::vector<std::pair<int, Writes>> steps{
        {3, {{'A', 1050, true}, {'B', 1050, true}}},
        {1, {{'B', 1100, false}}},
        {2, {{'A', 1150, false}, {'B', 1150, true}}},
        {0, {{'B', 1200, false}}},
    };
    for (const auto& [mode, writes] : steps) {
        front.setMode(mode);
        EXPECT_EQ(run(1), Pauses{50});
        EXPECT_EQ(journal_.take(), writes) << "mode " << mode;
    }
    for (int bad : {10, -1}) front.setMode(bad);  // ignored
    EXPECT_EQ(front.mode(), 0);
}

TEST_F(Blinkers, DestroyingABlinkerEndsItsThreadAtOnce) {
    auto front = std::make_unique<DualLedBlinker>(&a_, &b_, 60000, 60000);
    front->setMode(9);
    run(1);         // now in a one-minute pause
    front.reset();  // must not wait for virtual time
    journal_.take();
    const auto begun = time_->waitsBegun();
    time_->advance(120000);
    EXPECT_TRUE(journal_.take().empty());
    EXPECT_EQ(time_->waitsBegun(), begun);
}

TEST_F(Blinkers, BlinkersWithoutLinesDoNothing) {
    LedBlinker green(nullptr, 500, 250);
    DualLedBlinker front(&a_, nullptr, 500, 500);
    green.setMode(2);
    front.setMode(9);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(time_->waitsBegun(), 0u);
    EXPECT_TRUE(journal_.take().empty());
}

}  // namespace
