// The exported handle: the same knob behind a movable object, and the
// simulated counter chip for hosts without the panel.
#include <type_traits>

#include "knob_test_support.h"
#include "tovel/knob.h"

namespace knob_test {
namespace {

static_assert(std::is_same_v<KnobEventListener, tovel::KnobEventListener>);
static_assert(!std::is_copy_constructible_v<tovel::Knob>);
static_assert(std::is_nothrow_move_constructible_v<tovel::Knob>);
static_assert(!std::is_copy_constructible_v<Knob> && !std::is_move_constructible_v<Knob>);

TEST_F(KnobTest, MovedHandleKeepsTheKnobAndTheOldOneIsInert) {
    tovel::Knob knob(0, 100, 40);
    knob.setRange(0, 100, 5, 60, false);
    Recorder owner;
    tovel::Knob moved(std::move(knob));
    EXPECT_EQ(moved.getCount(), 60);
    EXPECT_TRUE(moved.takeFocus(0, 10, 1, 3, &owner, false));
    EXPECT_EQ(moved.getCount(), 3);

    EXPECT_EQ(knob.getCount(), 0);  // NOLINT(bugprone-use-after-move): inert by design
    EXPECT_FALSE(knob.takeFocus(0, 10, 1, 3, &owner, false));
    EXPECT_FALSE(knob.releaseFocus(&owner));
    knob.addListener(&owner);
    knob.setRange(1u, 2u, 1u, 1u, true);
    EXPECT_EQ(knob.getRate(), 0.0f);

    knob = std::move(moved);
    EXPECT_EQ(knob.getCount(), 3);
    EXPECT_TRUE(knob.releaseFocus(&owner));
    EXPECT_EQ(knob.getCount(), 60);
    EXPECT_EQ(knob.codeOrderErrors(), 0u);
    EXPECT_EQ(knob.swErrors(), 0u);
}

static_assert(!std::is_copy_constructible_v<tovel::DigitalInput>);

// The program's own lines, set from its thread: the knob decodes each change
// at once, in that thread.
TEST(ExportedLineKnob, DecodesTheProgramsDigitalInputs) {
    struct Case {
        bool activeLevel;
        int on, off;  // raw levels
    };
    for (const Case c : {Case{true, 1, 0}, Case{false, 0, 5}}) {
        SCOPED_TRACE(c.activeLevel);
        tovel::DigitalInput a(c.activeLevel), b(c.activeLevel);
        tovel::Knob knob(&a, &b, 0, 100, 5);
        EXPECT_FALSE(a.isOn());
        b.setValue(c.on);  // code 2
        a.setValue(c.on);  // 3
        EXPECT_TRUE(a.isOn());
        b.setValue(c.off);  // 1
        a.setValue(c.off);  // 0
        EXPECT_EQ(knob.getCount(), 9);
        a.setValue(c.on);  // 1: down
        EXPECT_EQ(knob.getCount(), 8);
        a.setValue(c.on);  // the same code again: a code-order error
        EXPECT_EQ(knob.getCount(), 8);
        EXPECT_EQ(knob.codeOrderErrors(), 1u);
    }
}

TEST(KnobSimulation, CounterChipIsInstalledOnceAndTurns) {
    tovel::simulation::installCounterChip();
    const std::uint32_t start = tovel::simulation::counterChipCount();
    tovel::simulation::turnCounterChip(5);
    tovel::simulation::installCounterChip();  // the same chip
    EXPECT_EQ(tovel::simulation::counterChipCount(), start + 5u);
    tovel::simulation::turnCounterChip(-6);
    EXPECT_EQ(tovel::simulation::counterChipCount(), start - 1u);  // 32 bits, wrapping
}

}  // namespace
}  // namespace knob_test
