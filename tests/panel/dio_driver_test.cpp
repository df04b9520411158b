// The digital-I/O driver against the simulated "DIO1:" block.
#include <gtest/gtest.h>

#include "panel/digital_input.h"
#include "panel/digital_output.h"
#include "panel/dio_driver.h"
#include "panel_test_support.h"
#include "recording_listeners.h"
#include "sim/dio_block.h"

using panel_test::advanceUntil;
using panel_test::DigitalRecorder;
using panel_test::eventually;

namespace {

class DioDriverTest : public panel_test::ManualClockTest {
  protected:
    ~DioDriverTest() override { sim::uninstallDioBlock(); }

    std::shared_ptr<sim::DioBlock> block_ = sim::installDioBlock();
};

TEST_F(DioDriverTest, StartsWithNoOutputsThenOutputSetsItsDirectionBitAndInputClearsIt) {
    DioDriver driver;
    EXPECT_TRUE(driver.isRunning());
    EXPECT_EQ(block_->directionRequests(), 1);
    EXPECT_EQ(block_->direction(), 0u);
    DigitalOutput at19(19, &driver);
    DigitalOutput at3(3, &driver);
    EXPECT_EQ(block_->direction(), (1u << 19) | (1u << 3));
    DigitalInput input;
    driver.registerPoint(&input, 3);
    EXPECT_EQ(driver.direction(), 1u << 19);
    EXPECT_EQ(block_->direction(), 1u << 19);
    EXPECT_EQ(driver.pointAt(3), &input);
}

TEST_F(DioDriverTest, OutputsWriteTheirLineAndKeepTheOthers) {
    DioDriver driver;
    DigitalOutput led(5, &driver);
    DigitalOutput other(30, &driver);
    other.setOn();
    led.setOn();
    EXPECT_TRUE(block_->output(5));
    EXPECT_EQ(block_->outputs(), (1u << 5) | (1u << 30));
    led.setOff();
    EXPECT_FALSE(led.isOn());
    EXPECT_FALSE(block_->output(5));
    EXPECT_TRUE(block_->output(30));
    EXPECT_EQ(driver.outputs(), 1u << 30);
}

TEST_F(DioDriverTest, PointsOutsideTheLinesAndWritesForInputsOrUnknownPointsAreIgnored) {
    DioDriver driver;
    DigitalInput input;
    DigitalOutput stranger(0, nullptr);
    driver.registerPoint(&input, 6);
    const int requests = block_->directionRequests();
    const int writes = block_->writes();
    driver.registerPoint(&stranger, 32);
    driver.registerPoint(&stranger, -1);
    driver.registerPoint(nullptr, 4);
    driver.write(true, &input);
    driver.write(true, &stranger);
    EXPECT_EQ(block_->directionRequests(), requests);
    EXPECT_EQ(block_->writes(), writes);
    EXPECT_EQ(driver.direction(), 0u);
    EXPECT_EQ(driver.outputs(), 0u);
    EXPECT_EQ(driver.pointAt(4), nullptr);
}

TEST_F(DioDriverTest, LineChangeReachesListenersThroughTheUpdater) {
    // Listeners first: they must outlive the points that call them.
    DigitalRecorder recorder;
    DioDriver driver;
    DigitalInput input(1, 50, true);
    input.addListener(&recorder);
    driver.registerPoint(&input, 2);
    block_->setInput(2, true);
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return recorder.levels.count() == 1; }));
    EXPECT_EQ(recorder.levels.values(), std::vector<bool>{true});
    EXPECT_EQ(recorder.inputs.values(), std::vector<DigitalInput*>{&input});
    block_->setInput(2, false);
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return recorder.levels.count() == 2; }));
    EXPECT_EQ(recorder.levels.values(), (std::vector<bool>{true, false}));
}

// After its first round (at tick 1000) an idle driver reads only for a
// change, at the next instant of its 10 ms raster.
TEST_F(DioDriverTest, InputWithoutHistoryHearsOnTheNextRoundAfterAnyIdleTime) {
    DigitalRecorder recorder;
    DioDriver driver;
    DigitalInput input(0, 30000, true);
    input.addListener(&recorder);
    driver.registerPoint(&input, 7);
    ASSERT_TRUE(eventually([&] { return block_->reads() == 1; }));
    clock_->advance(1005);
    block_->setInput(7, true);
    ASSERT_TRUE(advanceUntil(*clock_, 1, [&] { return recorder.levels.count() == 1; }));
    EXPECT_GE(clock_->tickCount(), 2010u);
    EXPECT_EQ(block_->reads(), 2);
}

TEST_F(DioDriverTest, ChangeOnLineNineNotifiesNothing) {
    DigitalRecorder recorder;
    DioDriver driver;
    DigitalInput at9(0, 50, true);
    DigitalInput at1(1);
    at9.addListener(&recorder);
    driver.registerPoint(&at9, 9);
    driver.registerPoint(&at1, 1);
    block_->setInput(9, true);
    // Seen (the round has ended), but not examined.
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return driver.lastBits() == 1u << 9; }));
    EXPECT_EQ(recorder.levels.count(), 0u);
    EXPECT_FALSE(at1.hasEvents());
}

TEST_F(DioDriverTest, FailedReadIsNotTakenForAChange) {
    DioDriver driver;
    DigitalInput input(4);
    driver.registerPoint(&input, 0);
    block_->setInput(0, true);
    block_->failReads(true);
    const int threeRounds = block_->reads() + 3;
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return block_->reads() >= threeRounds; }));
    EXPECT_FALSE(input.hasEvents());
    block_->failReads(false);
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return input.hasEvents(); }));
    EXPECT_EQ(input.queuedCount(), 1u);
}

TEST_F(DioDriverTest, DriverMayGoBeforeItsPoints) {
    DigitalInput input(1);
    auto driver = std::make_unique<DioDriver>();
    DigitalOutput led(9, driver.get());
    driver->registerPoint(&input, 2);
    driver.reset();
    led.setOn();  // records the level only: the driver is gone
    EXPECT_TRUE(led.isOn());
    EXPECT_EQ(led.driver(), nullptr);
}

TEST_F(DioDriverTest, DestroyedPointIsNoLongerFedAndLeavesItsReplacementAlone) {
    DioDriver driver;
    auto gone = std::make_unique<DigitalInput>(1);
    auto first = std::make_unique<DigitalInput>(1);
    DigitalInput second(1);
    driver.registerPoint(gone.get(), 4);
    driver.registerPoint(first.get(), 2);
    driver.registerPoint(&second, 2);
    gone.reset();
    first.reset();
    EXPECT_EQ(driver.pointAt(4), nullptr);
    EXPECT_EQ(driver.pointAt(2), &second);
    block_->setInputs((1u << 4) | (1u << 2));  // the round must not touch the freed points
    ASSERT_TRUE(advanceUntil(*clock_, 10, [&] { return second.hasEvents(); }));
}

TEST_F(DioDriverTest, WithoutTheDeviceTheThreadStopsAndWritesFailSilently) {
    sim::uninstallDioBlock();
    DioDriver driver;
    EXPECT_FALSE(driver.isRunning());
    DigitalOutput led(8, &driver);
    led.setOn();
    EXPECT_TRUE(led.isOn());
    EXPECT_EQ(driver.direction(), 1u << 8);
    EXPECT_EQ(block_->directionRequests(), 0);
    EXPECT_EQ(block_->writes(), 0);
}

TEST_F(DioDriverTest, StopsPromptlyAndClosesTheDevice) {
    auto driver = std::make_unique<DioDriver>();
    ASSERT_TRUE(eventually([&] { return block_->reads() == 1; }));  // idle from here
    const auto before = std::chrono::steady_clock::now();
    driver->halt();
    EXPECT_FALSE(driver->isRunning());
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    block_->setInput(0, true);  // no longer heard
    clock_->advance(100);
    EXPECT_EQ(block_->reads(), 1);
    DioDriver next;
    EXPECT_TRUE(next.isRunning());
}

}  // namespace
