// Listener notification through the knob's updater, and the focus.
#include <tuple>

#include "knob_test_support.h"
#include "panel/digital_input.h"

namespace knob_test {
namespace {

class KnobListeners : public KnobTest {
  protected:
    void SetUp() override { waitForUpdaterPause(); }
    // One step up, and the updater's round that tells it: done once `last`
    // (the last listener in the list) has heard `calls` counts in all.
    void stepAndWait(int code, const Recorder& last, std::size_t calls) {
        feed(knob_, {code});
        // The updater may still be busy with the last round: keep time moving.
        ASSERT_TRUE(
            advanceUntil(*clock_, Knob::notifyPeriodMs, [&] { return last.calls() == calls; }));
    }

    DigitalInput lineA_;
    DigitalInput lineB_;
    Knob knob_{&lineA_, &lineB_, 0, 100, 5};
    Recorder first_;
    Recorder second_;
};

// The knob's lower and upper bound, increment, count and wrap, as one value.
std::tuple<int, int, int, int, bool> settingsOf(const Knob& k) {
    return {k.lower(), k.upper(), k.increment(), k.getCount(), k.wrap()};
}

TEST_F(KnobListeners, StepsBetweenTwoRoundsMakeOneNotificationWithTheLatestCount) {
    knob_.addListener(&first_);
    feed(knob_, {2, 3, 1, 0});
    EXPECT_TRUE(knob_.hasEvents());
    EXPECT_EQ(first_.calls(), 0u);  // nothing before the round

    nextRound();
    ASSERT_TRUE(eventually([&] { return first_.calls() == 1; }));
    EXPECT_EQ(first_.counts(), std::vector<int>{9});
    EXPECT_EQ(first_.rates(), std::vector<float>{0.0f});
    EXPECT_FALSE(knob_.hasEvents());

    // Quiet rounds tell nothing: the next call is about the next step.
    for (int i = 0; i < 3; ++i) nextRound();
    stepAndWait(2, first_, 2);
    EXPECT_EQ(first_.counts(), (std::vector<int>{9, 10}));
}

TEST_F(KnobListeners, ListenersAreToldInTheOrderAdded) {
    std::vector<const Recorder*> order;
    std::mutex orderMutex;
    struct Ordered : Recorder {
        Ordered(std::vector<const Recorder*>& o, std::mutex& m) : order(o), mutex(m) {}
        void newValue(int count, float rate) override {
            Recorder::newValue(count, rate);
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(this);
        }
        std::vector<const Recorder*>& order;
        std::mutex& mutex;
    } a(order, orderMutex), b(order, orderMutex);
    knob_.addListener(&b);
    knob_.addListener(&a);
    feed(knob_, {2});
    nextRound();
    ASSERT_TRUE(eventually([&] { return a.calls() == 1 && b.calls() == 1; }));
    std::lock_guard<std::mutex> lock(orderMutex);
    EXPECT_EQ(order, (std::vector<const Recorder*>{&b, &a}));
}

TEST_F(KnobListeners, RemoveTakesOutTheFirstEntryOnlyAndIgnoresStrangers) {
    Recorder last;
    knob_.addListener(&first_);
    knob_.addListener(&second_);
    knob_.addListener(&first_);
    knob_.addListener(&last);
    knob_.addListener(nullptr);  // not taken
    knob_.removeListener(&first_);
    knob_.removeListener(nullptr);  // a stranger changes nothing
    EXPECT_EQ(knob_.updater().listeners(),
              (std::vector<KnobEventListener*>{&second_, &first_, &last}));
    stepAndWait(2, last, 1);
    EXPECT_EQ(first_.calls(), 1u);
    EXPECT_EQ(second_.calls(), 1u);

    knob_.removeListener(&first_);
    stepAndWait(3, last, 2);
    EXPECT_EQ(first_.calls(), 1u);
    EXPECT_EQ(second_.counts(), (std::vector<int>{6, 7}));
}

TEST_F(KnobListeners, AListenerMayRemoveItselfWhileBeingTold) {
    struct OneShot : Recorder {
        Knob* knob = nullptr;
        void newValue(int count, float rate) override {
            Recorder::newValue(count, rate);
            knob->removeListener(this);
        }
    } oneShot;
    oneShot.knob = &knob_;
    knob_.addListener(&oneShot);
    knob_.addListener(&first_);
    stepAndWait(2, first_, 1);
    stepAndWait(3, first_, 2);
    EXPECT_EQ(oneShot.counts(), std::vector<int>{6});
    EXPECT_EQ(first_.counts(), (std::vector<int>{6, 7}));
}

TEST_F(KnobListeners, SetRangeIsNotAnnounced) {
    knob_.addListener(&first_);
    knob_.setRange(-10, 10, 2, 7, true);
    EXPECT_EQ(knob_.getCount(), 7);
    EXPECT_FALSE(knob_.hasEvents());
    EXPECT_FALSE(knob_.unsignedRange());
    stepAndWait(2, first_, 1);
    EXPECT_EQ(first_.counts(), std::vector<int>{9});

    knob_.setRange(1u, 4000000000u, 1u, 3000000000u, false);
    EXPECT_TRUE(knob_.unsignedRange());
    EXPECT_EQ(static_cast<unsigned>(knob_.getCount()), 3000000000u);
    EXPECT_FALSE(knob_.hasEvents());
    knob_.setRange(0, 1, 1, 0, false);
    EXPECT_FALSE(knob_.unsignedRange());
}

TEST_F(KnobListeners, SecondTakeFocusIsRefusedAndChangesNothing) {
    EXPECT_FALSE(knob_.takeFocus(0, 9, 1, 3, nullptr, false));
    EXPECT_EQ(knob_.focusOwner(), nullptr);

    ASSERT_TRUE(knob_.takeFocus(-5, 5, 2, 1, &first_, true));
    EXPECT_FALSE(knob_.takeFocus(0, 9, 1, 3, &second_, false));
    EXPECT_FALSE(knob_.takeFocus(0, 9, 1, 3, &first_, false));
    EXPECT_EQ(knob_.focusOwner(), &first_);
    EXPECT_EQ(settingsOf(knob_), std::make_tuple(-5, 5, 2, 1, true));
    EXPECT_FALSE(knob_.hasEvents());
}

TEST_F(KnobListeners, OnlyTheOwnerReleasesTheFocusAndGetsTheOldStateBack) {
    knob_.setRange(10u, 20u, 3u, 12u, true);
    ASSERT_TRUE(knob_.takeFocus(0, 100, 1, 50, &first_, false));
    EXPECT_FALSE(knob_.unsignedRange());
    feed(knob_, {2, 3});
    EXPECT_EQ(knob_.getCount(), 52);

    EXPECT_FALSE(knob_.releaseFocus(&second_));
    EXPECT_FALSE(knob_.releaseFocus(nullptr));
    EXPECT_EQ(knob_.focusOwner(), &first_);
    EXPECT_EQ(knob_.getCount(), 52);

    EXPECT_TRUE(knob_.releaseFocus(&first_));
    EXPECT_EQ(knob_.focusOwner(), nullptr);
    EXPECT_EQ(settingsOf(knob_), std::make_tuple(10, 20, 3, 12, true));
    EXPECT_TRUE(knob_.unsignedRange());
    EXPECT_FALSE(knob_.hasEvents());
    EXPECT_FALSE(knob_.releaseFocus(&first_));

    // The focus is free again.
    EXPECT_TRUE(knob_.takeFocus(0, 1, 1, 0, &second_, false));
}

}  // namespace
}  // namespace knob_test
