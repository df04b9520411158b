#include <gtest/gtest.h>

#include <filesystem>

#include "platform/clock.h"
#include "platform/handles.h"
#include "platform/line_server.h"
#include "platform/sync.h"
#include "sim/dio_block.h"
#include "sim/dsp_bus.h"
#include "sim/sim_console.h"
#include "sim/spi_counter.h"
#include "tests/support/test_support.h"

namespace {

class SimConsoleTest : public ::testing::Test {
  protected:
    ~SimConsoleTest() override {
        sim::uninstallDspBus();
        sim::uninstallDioBlock();
        sim::uninstallSpiCounter();
    }
    testing_support::TempUnitRoot root;
    std::shared_ptr<sim::SimDspBus> bus = sim::installDspBus(false);
    std::shared_ptr<sim::DioBlock> dio = sim::installDioBlock();
    std::shared_ptr<sim::Ls7366rCounter> counter = sim::installSpiCounter();
    sim::SimConsole console{bus, dio, counter};
};

bool ok(const std::string& answer) {
    return answer.rfind("ok", 0) == 0;
}
bool isError(const std::string& answer) {
    return answer.rfind("error ", 0) == 0;
}

}  // namespace

TEST_F(SimConsoleTest, AttachListDetach) {
    EXPECT_EQ(console.execute("attach t1"), "ok slot=1");
    EXPECT_EQ(console.execute("attach rf:1150000123"), "ok slot=2");
    std::string list = console.execute("boards");
    EXPECT_NE(list.find("count=2"), std::string::npos) << list;
    EXPECT_NE(list.find("slot=2 kind=rf serial=1150000123"), std::string::npos) << list;
    EXPECT_TRUE(ok(console.execute("detach 1")));
    EXPECT_TRUE(isError(console.execute("detach 1")));
    EXPECT_NE(console.execute("boards").find("count=1"), std::string::npos);
}

TEST_F(SimConsoleTest, FaultsReachTheBoard) {
    console.execute("attach ip");
    auto board = bus->board(1);
    EXPECT_TRUE(ok(console.execute("fault 1 fail 31 3")));
    EXPECT_EQ(board->faults().failTransfers, 3u);
    EXPECT_EQ(board->faults().failError, 31u);
    EXPECT_TRUE(ok(console.execute("fault 1 state 6")));
    EXPECT_EQ(board->statusBlock()[2], 6);
    EXPECT_TRUE(ok(console.execute("fault 1 hang")));
    EXPECT_TRUE(board->faults().frozen);
    EXPECT_TRUE(ok(console.execute("fault 1 mixup")));
    EXPECT_TRUE(ok(console.execute("fault 1 latency 5")));
    EXPECT_EQ(board->faults().latencyMs, 5u);
    EXPECT_TRUE(ok(console.execute("fault 1 clear")));
    EXPECT_FALSE(board->faults().frozen);
}

TEST_F(SimConsoleTest, BadCommandsAreAnsweredWithErrors) {
    console.execute("attach t1");
    for (const char* bad : {"",
                            "   ",
                            "reboot",
                            "attach",
                            "attach dsp",
                            "attach t1:abc",
                            "attach t1:0",
                            "detach x",
                            "detach 99",
                            "fault",
                            "fault 1",
                            "fault 9 hang",
                            "fault 1 fail 31",
                            "fault 1 fail x 2",
                            "fault 1 state 300",
                            "fault 1 latency -1",
                            "fault 1 melt",
                            "knob",
                            "knob 1.5",
                            "knob 99999999999",
                            "boards extra",
                            "powerfail now"})
        EXPECT_TRUE(isError(console.execute(bad))) << "'" << bad << "' -> " << console.execute(bad);
}

TEST_F(SimConsoleTest, PowerFailRaisesLine17AndKnobTurnsTheCounter) {
    EXPECT_TRUE(ok(console.execute("powerfail")));
    EXPECT_TRUE(dio->inputs() & (1u << 17));
    EXPECT_TRUE(ok(console.execute("knob +5")));
    EXPECT_TRUE(ok(console.execute("knob -2")));
    EXPECT_EQ(counter->count(), 3u);
}

TEST_F(SimConsoleTest, ChannelServesLinesOverAPrivateUnixSocket) {
    host::LineServer server;
    std::string error;
    const std::string path = root.path() + "/sim.sock";
    ASSERT_TRUE(server.start(
        path, [this](const std::string& line) { return console.execute(line); }, error))
        << error;
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    std::string reply;
    ASSERT_TRUE(host::lineRequest(path, "attach pots", reply, error)) << error;
    EXPECT_EQ(reply, "ok slot=1");
    ASSERT_TRUE(host::lineRequest(path, std::string(10000, 'x'), reply, error) || !error.empty());
    ASSERT_TRUE(host::lineRequest(path, "boards", reply, error)) << error;
    EXPECT_NE(reply.find("kind=pots"), std::string::npos);
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(host::lineRequest(path, "boards", reply, error));
}

// A turn reaches every knob on the unit root through "RotaryEvent".
TEST_F(SimConsoleTest, KnobTurnIsPublishedThroughTheRotaryEvent) {
    const HANDLE event = host::CreateEventW(false, false, L"RotaryEvent");
    ASSERT_TRUE(ok(console.execute("knob -3")));
    EXPECT_EQ(host::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(host::GetEventData(event) & 0xFFFFu, 0xFFFDu);
    host::CloseHandle(event);
}

TEST_F(SimConsoleTest, PanelCommandsAskTheHooksOfTheProgramThatRunsTheUnit) {
    EXPECT_TRUE(isError(console.execute("leds")));
    EXPECT_TRUE(isError(console.execute("cpu")));
    EXPECT_EQ(console.execute("powerfail"), "ok line 17 raised");
    bool handled = false;
    console.setPanelHooks({.leds = [] { return std::string("ok green=on"); },
                           .cpu = [] { return std::string("ok cpu=42"); },
                           .powerFailHandled = [&] { return handled; }});
    EXPECT_EQ(console.execute("leds"), "ok green=on");
    EXPECT_EQ(console.execute("cpu"), "ok cpu=42");
    EXPECT_TRUE(isError(console.execute("leds 1")));
    EXPECT_EQ(console.execute("powerfail"),
              "ok line 17 raised; this platform has no power-fail handling: the unit runs on");
    handled = true;
    EXPECT_EQ(console.execute("powerfail"), "ok line 17 raised");
}
