#pragma once
// Common ground for the status dialog tests: a unit root whose registry names
// the platform, virtual time, captured debug output, stand-in LED lines and
// controls, and a unit reset caught through the process-exit hook.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/dialog_core.h"
#include "device/power_fail.h"
#include "tests/device/watchdog_fixture.h"
#include "tests/support/waiting.h"

namespace dialog_test {

using testing_support::eventually;

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

// The watchdog tests' unit (platform, virtual time, debug output, a reset
// caught through the exit hook), with the power-fail driver reset too.
class DialogTest : public WatchdogTest {
  protected:
    void SetUp() override {
        WatchdogTest::SetUp();
        resetPowerFailForTest();
    }
    void TearDown() override {
        resetPowerFailForTest();
        WatchdogTest::TearDown();
    }

    // An environment with stand-in LEDs, an idle machine and no controller.
    DialogCore::Environment fakeEnvironment() {
        DialogCore::Environment env;
        env.cpuTimes = [this] { return host::CpuTimes{busyTicks_.load(), totalTicks_.load()}; };
        env.anySessionActive = [this] { return sessionActive_.load(); };
        env.makeLedLine = [](int line) { return std::make_unique<FakeLine>(line); };
        env.stopController = [this] { ++controllerStops_; };
        return env;
    }

    // The machine's processor time counters as the stand-in reports them.
    std::atomic<std::uint64_t> busyTicks_{0};
    std::atomic<std::uint64_t> totalTicks_{0};
    std::atomic<bool> sessionActive_{false};
    std::atomic<int> controllerStops_{0};
};

}  // namespace dialog_test
