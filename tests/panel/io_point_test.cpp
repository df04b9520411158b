// Input points: their queues, levels, kinds, listeners and updaters.
#include <gtest/gtest.h>

#include <tuple>

#include "panel/digital_input.h"
#include "panel/multi_digital_input.h"
#include "panel_test_support.h"
#include "recording_listeners.h"

using panel_test::DigitalRecorder;
using panel_test::eventually;
using panel_test::MultiRecorder;
using panel_test::PointRecorder;

namespace {

class IOPointTest : public panel_test::ManualClockTest {};

TEST_F(IOPointTest, QueueKeepsTheLatestValuesUpToItsDepthOldestFirst) {
    DigitalInput input(3);
    for (int raw : {1, 0, 1, 1}) input.setValue(raw);
    EXPECT_EQ(input.queuedCount(), 3u);
    EXPECT_EQ(input.currentValue(), IOValue(false));
    input.removeEvent();
    EXPECT_EQ(input.currentValue(), IOValue(true));
    input.removeEvent();
    input.removeEvent();
    EXPECT_FALSE(input.hasEvents());
    EXPECT_EQ(input.currentValue(), std::nullopt);
    input.removeEvent();  // on an empty queue: nothing
    EXPECT_EQ(input.queuedCount(), 0u);

    DigitalInput noHistory(0);  // and no updater
    noHistory.setValue(1);
    EXPECT_FALSE(noHistory.hasEvents());
    EXPECT_EQ(noHistory.updater(), nullptr);
}

TEST_F(IOPointTest, ActiveLevelDecidesWhatCountsAsOn) {
    const std::tuple<bool, int, bool> cases[] = {
        {true, 1, true},  {true, 7, true},   {true, 0, false},  {true, -1, false},
        {false, 0, true}, {false, 1, false}, {false, -1, false}};
    for (auto [activeHigh, raw, on] : cases) {
        DigitalInput input(1, activeHigh);
        input.setValue(raw);
        EXPECT_EQ(input.currentValue(), IOValue(on)) << activeHigh << " " << raw;
    }
}

// Without history the listeners hear at once, in the setting thread, and get
// the value just set even though the dispatch has already taken it off the
// queue.
TEST_F(IOPointTest, PointWithoutHistoryTellsListenersTheNewValueAtOnce) {
    // Listeners first: they must outlive the points that call them.
    MultiRecorder first;
    MultiRecorder second;
    MultiDigitalInput multi(0, 30000, true);
    multi.addListener(&first);
    multi.addListener(&second);
    for (int code : {2, 3, 1, 0}) multi.setValue(code);
    EXPECT_EQ(first.values.values(), (std::vector<int>{2, 3, 1, 0}));
    EXPECT_EQ(second.values.values(), (std::vector<int>{2, 3, 1, 0}));
    EXPECT_FALSE(multi.hasEvents());
}

TEST_F(IOPointTest, DigitalInputWithUpdaterTellsItsLevelToEveryKindOfListener) {
    DigitalRecorder digital;
    PointRecorder plain;
    DigitalInput input(0, 50, false);
    input.addListener(&digital);
    input.IOPoint::addListener(&plain);
    input.setValue(0);
    input.setValue(1);
    EXPECT_EQ(digital.levels.values(), (std::vector<bool>{true, false}));
    EXPECT_EQ(digital.inputs.values(), (std::vector<DigitalInput*>{&input, &input}));
    EXPECT_EQ(plain.points.values(), (std::vector<IOPoint*>{&input, &input}));
}

TEST_F(IOPointTest, QueuedValuesReachListenersWhenTheUpdaterPolls) {
    MultiRecorder recorder;
    MultiDigitalInput multi(1, 50, true);
    ASSERT_NE(multi.updater(), nullptr);
    EXPECT_EQ(multi.updater()->priority(), host::THREAD_PRIORITY_NORMAL);
    multi.addListener(&recorder);
    // Let the updater finish the round it makes as it starts.
    ASSERT_TRUE(eventually([&] { return clock_->waiters() > 0; }));
    multi.setValue(7);
    EXPECT_EQ(recorder.values.count(), 0u);
    clock_->advance(50);
    ASSERT_TRUE(eventually([&] { return recorder.values.count() == 1; }));
    EXPECT_EQ(recorder.values.values(), std::vector<int>{7});
    EXPECT_FALSE(multi.hasEvents());
}

// Each round hands the listeners the value that is current after the removal;
// the last round, which empties the queue, hands over the value it removed.
TEST_F(IOPointTest, DeeperQueueIsDrainedOneRoundPerValue) {
    MultiRecorder recorder;
    MultiDigitalInput multi(2, 50, true);
    multi.addListener(&recorder);
    ASSERT_TRUE(eventually([&] { return clock_->waiters() > 0; }));
    multi.setValue(1);
    multi.setValue(2);
    clock_->advance(50);
    ASSERT_TRUE(eventually([&] { return recorder.values.count() == 2; }));
    EXPECT_EQ(recorder.values.values(), (std::vector<int>{2, 2}));
}

}  // namespace
