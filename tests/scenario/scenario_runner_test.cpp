#include <gtest/gtest.h>

#include "platform/clock.h"
#include "sim/dsp_bus.h"
#include "sim/sim_console.h"
#include "tests/support/waiting.h"
#include "tools/scenariokit/scenario_file.h"
#include "tools/scenariokit/scenario_runner.h"

namespace {

using testing_support::eventually;

class ScenarioRunnerTest : public ::testing::Test {
  protected:
    ~ScenarioRunnerTest() override { sim::uninstallDspBus(); }

    scenario::Scenario parse(const char* text) {
        auto parsed = scenario::parseScenarioText(text, "test.toml");
        EXPECT_TRUE(parsed.scenario) << parsed.error;
        return parsed.scenario.value_or(scenario::Scenario{});
    }

    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>(1000);
    host::ScopedClock scoped{clock};
    std::shared_ptr<sim::SimDspBus> bus = sim::installDspBus(false);
    sim::SimConsole console{bus, nullptr, nullptr};
    scenario::ScenarioRunner runner{bus,
                                    [this](const std::string& l) { return console.execute(l); }};
};

// The acceptance timeline: the board hangs at 1 s and is pulled at 3 s; no
// event fires early, each fires once its time has come.
TEST_F(ScenarioRunnerTest, EventsFireWhenTheClockReachesThem) {
    const auto s = parse(R"(
[[board]]
kind = "rf"
latency_ms = 2
[[event]]
at_ms = 3000
action = "detach"
slot = 1
[[event]]
at_ms = 1000
action = "fault"
slot = 1
fault = "hang"
)");
    EXPECT_EQ(runner.load(s), "ok loaded test.toml: 1 boards (1 attached), 2 events");
    const auto board = bus->board(1);
    ASSERT_TRUE(board);
    EXPECT_EQ(board->faults().latencyMs, 2u);

    clock->advance(999);
    EXPECT_NE(runner.listEvents().find("pending=2 done=0"), std::string::npos);
    EXPECT_FALSE(board->faults().frozen);
    clock->advance(1);
    EXPECT_TRUE(eventually([&] { return board->faults().frozen; }));
    clock->advance(1999);
    EXPECT_TRUE(board->attached());
    clock->advance(1);
    EXPECT_TRUE(eventually([&] { return !board->attached(); }));
    EXPECT_TRUE(eventually([&] { return runner.listEvents().find("pending=0 done=2") == 3; }))
        << runner.listEvents();
    EXPECT_NE(runner.listEvents().find("at_ms=1000 fault 1 hang: done 2000 ms ago (ok hung)"),
              std::string::npos)
        << runner.listEvents();
}

// Loading onto a running unit: a present board gets the file's settings, a
// missing one is plugged in, and an attach event plugs in a board of the file.
TEST_F(ScenarioRunnerTest, LoadAppliesToPresentBoardsAndAttachesLater) {
    const auto present = bus->attach(sim::BoardKind::T1);
    const auto s = parse(R"(
[unit]
boards_at_start = false
[[board]]
kind = "t1"
latency_ms = 7
[[board]]
kind = "pots"
serial = 1350000042
[[board.reply]]
opcode = 0x42
echo = true
[[event]]
at_ms = 500
action = "attach"
slot = 2
)");
    runner.load(s);
    EXPECT_EQ(present->faults().latencyMs, 7u);
    EXPECT_FALSE(bus->board(2));
    clock->advance(500);
    // The runner plugs the board in, then gives it the file's replies.
    ASSERT_TRUE(eventually([&] {
        const auto board = bus->board(2);
        return board && board->replyRules().size() == 1u;
    }));
    EXPECT_EQ(bus->board(2)->serial(), 1350000042u);
}

}  // namespace
