// The knob on two lines read from device files.
#include "knob_test_support.h"

namespace knob_test {
namespace {

class FileLineKnob : public KnobTest {
  protected:
    void setLine(const wchar_t* name, bool level) {
        root_.writeFile(name, std::string(level ? "\x01\x00" : "\x00\x00", 2));
    }
    // Sets the lines to `code` (only the line that changes is written) and
    // waits until the knob has taken it.
    void lines(Knob& knob, int code) {
        if ((code & 1) != (level_ & 1)) setLine(lineA, code & 1);
        if ((code & 2) != (level_ & 2)) setLine(lineB, code & 2);
        level_ = code;
        ASSERT_TRUE(
            advanceUntil(*clock_, Knob::linePollMs, [&] { return knob.quadState() == code; }));
    }

    static constexpr const wchar_t* lineA = L"\\Panel\\EncoderA";
    static constexpr const wchar_t* lineB = L"\\Panel\\EncoderB";
    int level_ = 0;
};

TEST_F(FileLineKnob, LinesAreDecodedAsTheyChange) {
    setLine(lineA, false);
    setLine(lineB, false);
    Knob knob(lineA, lineB, 0, 100, 5);
    Recorder listener;
    knob.addListener(&listener);

    // Through the start delay in large steps.
    setLine(lineB, true);
    level_ = 2;
    ASSERT_TRUE(advanceUntil(*clock_, 500, [&] { return knob.quadState() == 2; }));
    EXPECT_EQ(knob.getCount(), 6);
    lines(knob, 3);
    lines(knob, 1);
    lines(knob, 0);
    EXPECT_EQ(knob.getCount(), 9);
    lines(knob, 1);
    EXPECT_EQ(knob.getCount(), 8);
    EXPECT_EQ(knob.codeOrderErrorCount(), 0u);
    ASSERT_TRUE(advanceUntil(*clock_, Knob::notifyPeriodMs, [&] {
        return !listener.counts().empty() && listener.counts().back() == 8;
    }));
}

}  // namespace
}  // namespace knob_test
