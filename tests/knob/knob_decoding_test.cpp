// Line decoding and the bounded count, fed straight into the knob or through
// two digital inputs.
#include <climits>

#include "knob_test_support.h"
#include "panel/digital_input.h"

namespace knob_test {
namespace {

class KnobDecoding : public KnobTest {
  protected:
    DigitalInput lineA_;
    DigitalInput lineB_;
    Knob knob_{&lineA_, &lineB_, 0, 100, 5};
};

TEST_F(KnobDecoding, OneTurnUpAndBack) {
    feed(knob_, {2, 3, 1, 0});
    EXPECT_EQ(knob_.getCount(), 9);
    feed(knob_, {1, 3, 2, 0});
    EXPECT_EQ(knob_.getCount(), 5);
    EXPECT_EQ(knob_.codeOrderErrorCount(), 0u);
    EXPECT_EQ(knob_.swErrorCount(), 0u);
    EXPECT_FALSE(knob_.errorFlag());
}

TEST_F(KnobDecoding, SkippedStepIsCountedAndChangesNothing) {
    feed(knob_, {3});
    EXPECT_EQ(knob_.getCount(), 5);
    EXPECT_EQ(knob_.codeOrderErrorCount(), 1u);
    EXPECT_EQ(knob_.quadState(), 3);
    EXPECT_TRUE(knob_.errorFlag());

    feed(knob_, {3});  // repeated
    EXPECT_EQ(knob_.codeOrderErrorCount(), 2u);
    feed(knob_, {1, 2});  // 3 -> 1 is a step up, 1 -> 2 jumps across two
    EXPECT_EQ(knob_.getCount(), 6);
    EXPECT_EQ(knob_.codeOrderErrorCount(), 3u);
    EXPECT_EQ(knob_.swErrorCount(), 0u);
}

TEST_F(KnobDecoding, ImpossibleCodeIsASoftwareErrorAndBecomesTheState) {
    feed(knob_, {4});
    EXPECT_EQ(knob_.swErrorCount(), 1u);
    EXPECT_EQ(knob_.quadState(), 4);
    feed(knob_, {0});  // the previous code is out of range too
    EXPECT_EQ(knob_.swErrorCount(), 2u);
    feed(knob_, {-1, 0, 2});
    EXPECT_EQ(knob_.swErrorCount(), 4u);
    EXPECT_EQ(knob_.getCount(), 6);  // only 0 -> 2 counted
    EXPECT_EQ(knob_.codeOrderErrorCount(), 0u);
}

TEST_F(KnobDecoding, StepPastUpperStopsOrWrapsToLower) {
    knob_.setRange(2, 10, 3, 9, false);
    feed(knob_, {2});
    EXPECT_EQ(knob_.getCount(), 9);

    knob_.setRange(2, 10, 3, 9, true);
    feed(knob_, {3});
    EXPECT_EQ(knob_.getCount(), 2);
    feed(knob_, {1});  // 2 + 3 fits
    EXPECT_EQ(knob_.getCount(), 5);
}

TEST_F(KnobDecoding, StepPastLowerStopsOrWrapsToUpper) {
    knob_.setRange(2, 10, 3, 4, false);
    feed(knob_, {1});
    EXPECT_EQ(knob_.getCount(), 4);

    knob_.setRange(2, 10, 1, 2, true);
    feed(knob_, {3});  // 1 -> 3 is down
    EXPECT_EQ(knob_.getCount(), 10);
}

TEST_F(KnobDecoding, StepsNearTheLimitsOfAnIntDoNotOverflow) {
    knob_.setRange(INT_MIN, INT_MAX, INT_MAX, INT_MAX - 1, false);
    feed(knob_, {2});
    EXPECT_EQ(knob_.getCount(), INT_MAX - 1);
    feed(knob_, {0});
    EXPECT_EQ(knob_.getCount(), -1);
    feed(knob_, {1});
    EXPECT_EQ(knob_.getCount(), INT_MIN);
    feed(knob_, {3});
    EXPECT_EQ(knob_.getCount(), INT_MIN);
}

TEST_F(KnobDecoding, LevelsOfLinesAAndBMakeTheCode) {
    knob_.newValue(&lineA_, true);  // 0 -> 1: down
    EXPECT_EQ(knob_.quadState(), 1);
    knob_.newValue(&lineB_, true);   // 1 -> 3: down
    knob_.newValue(&lineA_, false);  // 3 -> 2: down
    knob_.newValue(&lineB_, false);  // 2 -> 0: down
    EXPECT_EQ(knob_.getCount(), 1);
    EXPECT_EQ(knob_.quadState(), 0);

    DigitalInput stranger;
    knob_.newValue(&stranger, true);  // the code stays: a repeat
    knob_.newValue(static_cast<DigitalInput*>(nullptr), true);
    EXPECT_EQ(knob_.codeOrderErrorCount(), 2u);
    EXPECT_EQ(knob_.getCount(), 1);
}

// The knob leaves its digital inputs when it goes.
TEST_F(KnobTest, DigitalInputsOutliveTheKnob) {
    DigitalInput lineA(0, 50, true);
    DigitalInput lineB(0, 50, true);
    {
        Knob knob(&lineA, &lineB, 0, 100, 5);
        lineB.setValue(1);
        EXPECT_EQ(knob.getCount(), 6);
    }
    lineA.setValue(1);  // nobody listens any more
    EXPECT_TRUE(lineA.updater()->listeners().empty());
    EXPECT_TRUE(lineB.updater()->listeners().empty());
}

}  // namespace
}  // namespace knob_test
