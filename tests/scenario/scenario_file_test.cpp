#include <gtest/gtest.h>

#include "tools/scenariokit/scenario_file.h"

namespace {

using scenario::parseScenarioText;

constexpr const char* kFull = R"(
[unit]
platform = "Other Platform"
boards_at_start = false

[[board]]
kind = "rf"
serial = 1150000007
latency_ms = 2

  [[board.reply]]
  opcode = 0x42
  reply_opcode = 0x43
  data = "00ff 00FF"

  [[board.reply]]
  opcode = 0x44
  echo = true

[[board]]
kind = "rf"

  [[board.reply]]
  opcode = 0x45
  delay_ms = 6000

[[event]]
at_ms = 3000
action = "detach"
slot = 1

[[event]]
at_ms = 1000
action = "fault"
slot = 1
fault = "fail"
code = 31
count = 5

[[event]]
at_ms = 1000
action = "attach"
slot = 2

[[event]]
at_ms = 4000
action = "knob"
delta = -3
)";

TEST(ScenarioFile, ReadsEverySetting) {
    const auto parsed = parseScenarioText(kFull, "full.toml");
    ASSERT_TRUE(parsed.scenario) << parsed.error;
    const scenario::Scenario& s = *parsed.scenario;
    EXPECT_EQ(s.platform, "Other Platform");
    EXPECT_FALSE(s.boardsAtStart);
    ASSERT_EQ(s.boards.size(), 2u);
    EXPECT_EQ(s.boards[0].serial, 1150000007u);
    EXPECT_EQ(s.boards[0].latencyMs, 2u);
    EXPECT_EQ(s.boards[1].serial, 1150000008u);  // the kind's next serial
    ASSERT_EQ(s.boards[0].replies.size(), 2u);
    EXPECT_EQ(s.boards[0].replies[0],
              (sim::ReplyRule{0x42, 0x43, sim::ReplyRule::Kind::Data, {0, 0xff, 0, 0xff}, 0}));
    EXPECT_EQ(s.boards[0].replies[1],
              (sim::ReplyRule{0x44, 0x44, sim::ReplyRule::Kind::Echo, {}, 0}));
    EXPECT_EQ(s.boards[1].replies[0],
              (sim::ReplyRule{0x45, 0x45, sim::ReplyRule::Kind::Delay, {}, 6000}));
    // In time order; events at the same time keep the file's order.
    std::vector<std::string> commands;
    for (const auto& e : s.events) commands.push_back(std::to_string(e.atMs) + " " + e.command);
    EXPECT_EQ(commands, (std::vector<std::string>{"1000 fault 1 fail 31 5",
                                                  "1000 attach rf:1150000008 slot=2",
                                                  "3000 detach 1", "4000 knob -3"}));
}

TEST(ScenarioFile, AnEmptyFileIsTheDefaultUnit) {
    const auto parsed = parseScenarioText("", "empty.toml");
    ASSERT_TRUE(parsed.scenario) << parsed.error;
    EXPECT_EQ(parsed.scenario->platform, "Kestrix Platform");
    EXPECT_TRUE(parsed.scenario->boardsAtStart);
    EXPECT_TRUE(parsed.scenario->boards.empty());
}

// Each bad file is refused with the place of the fault and what was expected.
TEST(ScenarioFile, RefusesBadFilesWithTheirPlace) {
    struct Case {
        const char* text;
        const char* error;
    };
    const Case cases[] = {
        {"[unit]\nplatfrom = \"x\"\n", "bad.toml:2:1: unknown key \"platfrom\" in [unit]"},
        {"[unit]\nboards_at_start = 1\n",
         "bad.toml:2:19: \"boards_at_start\" must be true or false"},
        {"[[board]]\nkind = \"isdn\"\n", "bad.toml:2:8: unknown board kind"},
        {"[[board]]\nserial = 5\n", "bad.toml:1:1: [[board]] needs \"kind\""},
        {"[[board]]\nkind = \"t1\"\nlatency_ms = \"2\"\n",
         "bad.toml:3:14: \"latency_ms\" must be an integer 0..60000"},
        {"[[board]]\nkind = \"t1\"\n[[board.reply]]\nopcode = 300\necho = true\n",
         "bad.toml:4:10: \"opcode\" must be in 0..255"},
        {"[[board]]\nkind = \"t1\"\n[[board.reply]]\nopcode = 1\necho = true\ndelay_ms = 5\n",
         "bad.toml:3:1: [[board.reply]] needs exactly one of"},
        {"[[board]]\nkind = \"t1\"\n[[board.reply]]\nopcode = 1\ndata = \"0f0\"\n",
         "bad.toml:5:8: \"data\" must be hexadecimal bytes"},
        {"[[event]]\nat_ms = 1\naction = \"detach\"\nslot = 10\n",
         "bad.toml:4:8: \"slot\" must be in 1..9"},
        {"[[event]]\nat_ms = 1\naction = \"explode\"\n", "bad.toml:3:10: unknown action"},
        {"[[event]]\nat_ms = 1\naction = \"fault\"\nslot = 1\nfault = \"melt\"\n",
         "bad.toml:5:9: unknown fault"},
        {"[[event]]\nat_ms = 1\naction = \"fault\"\nslot = 1\nfault = \"hang\"\ncode = 3\n",
         "bad.toml:6:1: unknown key \"code\" in a hang fault"},
        {"[[event]]\nat_ms = 1\naction = \"attach\"\nslot = 1\n",
         "bad.toml:4:8: an attach event's \"slot\" must name a [[board]]"},
        {"[[event]]\nat_ms = -1\naction = \"powerfail\"\n", "bad.toml:2:9: \"at_ms\" must be in"},
        {"[[board]]\nkind = \"t1\"\nserial = 7\n[[board]]\nkind = \"rf\"\nserial = 7\n",
         "bad.toml:4:1: serial 7 is used twice"},
        {"event = 3\n", "bad.toml:1:9: \"event\" must be an array of tables"},
        {"[unit\n", "bad.toml:1:"},  // the TOML reader's own complaint
    };
    for (const Case& c : cases) {
        const auto parsed = parseScenarioText(c.text, "bad.toml");
        EXPECT_FALSE(parsed.scenario) << c.text;
        EXPECT_EQ(parsed.error.rfind(c.error, 0), 0u) << c.text << "\n got: " << parsed.error;
    }
}

TEST(ScenarioFile, AMissingFileIsNamed) {
    const auto parsed = scenario::parseScenarioFile("/nonexistent/x.toml");
    EXPECT_FALSE(parsed.scenario);
    EXPECT_EQ(parsed.error, "/nonexistent/x.toml: cannot read the file");
}

}  // namespace
