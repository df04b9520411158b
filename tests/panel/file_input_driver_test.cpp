// The file-input driver feeding a multi-bit input from one file per line.
#include <gtest/gtest.h>

#include "panel/file_input_driver.h"
#include "panel/multi_digital_input.h"
#include "panel_test_support.h"
#include "recording_listeners.h"
#include "tests/support/test_support.h"

using panel_test::advanceUntil;
using panel_test::eventually;
using panel_test::MultiRecorder;

namespace {

const std::wstring kLineA = L"\\Panel\\lineA";
const std::wstring kLineB = L"\\Panel\\lineB";

class FileInputDriverTest : public panel_test::ManualClockTest {
  protected:
    FileInputDriverTest() {
        setLine(kLineA, false);
        setLine(kLineB, false);
        point_.addListener(&recorder_);
    }

    void setLine(const std::wstring& name, bool level) {
        root_.writeFile(name, std::string(level ? "\x01\x00" : "\x00\x00", 2));
    }

    FileInputDriver* attach(std::vector<std::wstring> names, DWORD period = 2) {
        auto driver = std::make_unique<FileInputDriver>(std::move(names), &point_, period);
        FileInputDriver* raw = driver.get();
        point_.adoptDriver(std::move(driver));
        return raw;
    }

    testing_support::TempUnitRoot root_;
    MultiRecorder recorder_;
    MultiDigitalInput point_{0, 30000, true};  // goes first, with its driver
};

TEST_F(FileInputDriverTest, WaitsNineSecondsThenReportsEachChangeOnce) {
    setLine(kLineB, true);
    FileInputDriver* driver = attach({kLineA, kLineB});
    EXPECT_EQ(driver->name(), kLineA + L", " + kLineB);
    // The point's updater and the driver's start delay.
    ASSERT_TRUE(eventually([&] { return clock_->waiters() >= 2; }));
    const DWORD start = clock_->tickCount();
    clock_->advance(FileInputDriver::startDelayMs - 1);
    ASSERT_TRUE(advanceUntil(*clock_, 1, [&] { return recorder_.values.count() == 1; }));
    EXPECT_GE(clock_->tickCount() - start, FileInputDriver::startDelayMs);
    EXPECT_EQ(recorder_.values.values(), std::vector<int>{2});

    setLine(kLineA, true);
    ASSERT_TRUE(advanceUntil(*clock_, 2, [&] { return recorder_.values.count() == 2; }));
    EXPECT_EQ(recorder_.values.values(), (std::vector<int>{2, 3}));
    EXPECT_EQ(driver->lastBits(), 3u);

    // Unchanged lines are not reported again.
    const DWORD until = clock_->tickCount() + 100;
    ASSERT_TRUE(advanceUntil(*clock_, 2, [&] { return clock_->tickCount() >= until; }));
    EXPECT_EQ(recorder_.values.count(), 2u);
}

TEST_F(FileInputDriverTest, MissingFileLeavesThePointUnchangedAndEndsTheThread) {
    setLine(kLineA, true);
    FileInputDriver* driver = attach({kLineA, L"\\Panel\\absent"});
    ASSERT_TRUE(advanceUntil(*clock_, 500, [&] { return !driver->isRunning(); }));
    EXPECT_EQ(recorder_.values.count(), 0u);
    EXPECT_EQ(driver->lastBits(), 0u);
}

TEST_F(FileInputDriverTest, AnyNonzeroFirstByteSetsTheLine) {
    root_.writeFile(kLineA, std::string("\x00\x01", 2));
    root_.writeFile(kLineB, std::string("\x80", 1));
    attach({kLineA, kLineB});
    ASSERT_TRUE(advanceUntil(*clock_, 500, [&] { return recorder_.values.count() == 1; }));
    EXPECT_EQ(recorder_.values.values(), std::vector<int>{2});
}

TEST_F(FileInputDriverTest, PointStopsItsDriverAtOnceEvenDuringTheStartDelay) {
    auto point = std::make_unique<MultiDigitalInput>(0, 30000, true);
    point->adoptDriver(
        std::make_unique<FileInputDriver>(std::vector<std::wstring>{kLineA}, point.get(), 2));
    ASSERT_TRUE(point->driver()->isRunning());
    const auto before = std::chrono::steady_clock::now();
    point.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST_F(FileInputDriverTest, TakesTheNamesFromAnArray) {
    const wchar_t* names[] = {kLineA.c_str(), kLineB.c_str()};
    FileInputDriver driver(names, 2, nullptr, 5);
    EXPECT_EQ(driver.names(), (std::vector<std::wstring>{kLineA, kLineB}));
    EXPECT_EQ(driver.period(), 5u);
}

}  // namespace
