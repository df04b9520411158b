#pragma once
// Common ground for the status dialog tests: a unit root whose registry names
// the platform, virtual time, captured debug output, stand-in LED lines and
// controls, and a unit reset caught through the process-exit hook.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/dialog_core.h"
#include "device/platform_id.h"
#include "device/power_fail.h"
#include "device/watchdog.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "tests/support/test_support.h"

namespace dialog_test {

// Polls `ready` in real time, briefly; answers its last value.
inline bool eventually(const std::function<bool()>& ready,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!ready()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// An LED line that only remembers its state.
class FakeLine : public LedLine {
  public:
    explicit FakeLine(int number) : number(number) {}
    void setOn() override { on = true; }
    void setOff() override { on = false; }
    bool isOn() const override { return on.load(); }
    const int number;
    std::atomic<bool> on{false};
};

// Makes FakeLines and remembers which line numbers were asked for, in order.
class FakeLeds {
  public:
    std::unique_ptr<LedLine> make(int line) {
        std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back(line);
        return std::make_unique<FakeLine>(line);
    }
    std::vector<int> asked() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<int> asked_;
};

// Controls that record what the message handling set.
class RecordingControls : public DialogControls {
  public:
    void setBarRange(int low, int high) override {
        std::lock_guard<std::mutex> lock(mutex);
        rangeLow = low;
        rangeHigh = high;
    }
    void setBarPosition(int position) override {
        std::lock_guard<std::mutex> lock(mutex);
        positions.push_back(position);
    }
    void setStatusText(const std::wstring& text) override {
        std::lock_guard<std::mutex> lock(mutex);
        texts.push_back(text);
    }
    std::mutex mutex;
    int rangeLow = -1;
    int rangeHigh = -1;
    std::vector<int> positions;
    std::vector<std::wstring> texts;
};

// Moves virtual time on in small steps while it lives, so that code that
// busy-waits on the host clock gets through its window.
class ClockDriver {
  public:
    explicit ClockDriver(std::shared_ptr<host::ManualClock> clock)
        : thread_([this, clock] {
              while (!stop_.load()) {
                  clock->advance(5);
                  std::this_thread::sleep_for(std::chrono::microseconds(200));
              }
          }) {}
    ~ClockDriver() {
        stop_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class DialogTest : public ::testing::Test {
  protected:
    struct UnitReset : std::runtime_error {
        UnitReset() : std::runtime_error("unit reset") {}
    };

    void SetUp() override {
        resetPlatformForTests();
        resetPowerFailForTests();
        previousExit_ = host::setExitHandler([this](int code) {
            resetTick_ = time_->tickCount();
            exitCode_ = code;
            throw UnitReset();
        });
    }
    void TearDown() override {
        WatchDog::resetSingletonForTests();
        resetPowerFailForTests();
        resetPlatformForTests();
        host::setExitHandler(previousExit_);
    }

    void onPlatform(const std::string& name) { root_.namePlatform(name); }
    void onKtx() { onPlatform("Kestrix Platform"); }
    void onVbq() { onPlatform("VBQ"); }

    // An environment with stand-in LEDs, an idle machine and no controller.
    DialogCore::Environment fakeEnvironment() {
        DialogCore::Environment env;
        env.cpuTimes = [this] { return host::CpuTimes{busyTicks_.load(), totalTicks_.load()}; };
        env.anySessionActive = [this] { return sessionActive_.load(); };
        env.makeLedLine = [this](int line) { return leds_.make(line); };
        env.stopController = [this] { ++controllerStops_; };
        return env;
    }

    // The exit code of a unit reset within `within` of real time, else 0.
    int resetCode(std::chrono::milliseconds within = std::chrono::milliseconds(3000)) {
        eventually([this] { return exitCode_.load() != 0; }, within);
        return exitCode_.load();
    }

    testing_support::TempUnitRoot root_;
    std::shared_ptr<host::ManualClock> time_ = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scopedClock_{time_};
    testing_support::DebugCapture debug_;
    FakeLeds leds_;
    // The machine's processor time counters as the stand-in reports them.
    std::atomic<std::uint64_t> busyTicks_{0};
    std::atomic<std::uint64_t> totalTicks_{0};
    std::atomic<bool> sessionActive_{false};
    std::atomic<int> controllerStops_{0};
    std::atomic<int> exitCode_{0};
    std::atomic<DWORD> resetTick_{0};
    host::ExitHandler previousExit_;
};

}  // namespace dialog_test
