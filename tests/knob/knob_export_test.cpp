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
