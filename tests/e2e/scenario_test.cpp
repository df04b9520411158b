// Scenario files and request traces, end to end: the shipped example
// scenarios and the acceptance timeline in real time.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "server/remote_protocol.h"
#include "tests/e2e/tovel_program.h"
#include "tests/support/waiting.h"

namespace {

using namespace e2e;
using Clock = std::chrono::steady_clock;
using testing_support::fileText;

const std::string kExamples = std::string(TOVEL_SOURCE_DIR) + "/examples/scenarios/";

// Rem_AtomicGet with a reply of `wanted` bytes.
std::string atomicGet(std::uint8_t opcode, std::uint32_t wanted, const std::string& payload) {
    return asString(remproto::encodeAtomicGet(opcode, bytesOf(payload), opcode, wanted));
}

class Scenarios : public TovelProgram {
  protected:
    std::string tracePath() const { return root.path() + "/trace.jsonl"; }
};

// The RF board's garbage answer comes back as the scenario says, and the
// drop-off is scheduled (not awaited here: the acceptance test below is the
// one about time).
TEST_F(Scenarios, RfDropsOffAnswersItsGarbageAndSchedulesTheDetach) {
    start({"--scenario", kExamples + "rf_drops_off.toml"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client);
    const std::string reply = client->ask(atomicGet(0x42, 4, "\x01"), 12);
    EXPECT_EQ(reply, std::string("\0\0\0\0\x04\0\0\0\x00\xff\x00\xff", 12));
    const auto events = sim({"events"});
    EXPECT_EQ(events.exitCode, 0);
    EXPECT_NE(events.output.find("at_ms=3000 detach 1: pending"), std::string::npos)
        << events.output;
    stopAndExpectCleanExit();
}

// Loaded onto a running unit: the failed transfers are retried by the link,
// the client's requests still succeed, and the event log shows the retries.
TEST_F(Scenarios, FlakyUsbLoadedWhileRunningRecovers) {
    start({"--boards", "ip"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client);
    const auto load = sim({"load", kExamples + "flaky_usb.toml"});
    EXPECT_EQ(load.exitCode, 0) << load.output;
    EXPECT_NE(load.output.find("1 boards (0 attached), 3 events"), std::string::npos)
        << load.output;
    ASSERT_TRUE(testing_support::eventually(
        [&] { return sim({"events"}).output.find("pending=2 done=1") != std::string::npos; }));
    EXPECT_EQ(statusOf(client->ask(atomicGet(0x7e, 2, "ab"), 10)), 0u);
    EXPECT_TRUE(logEventually(L"IOFailure (31)", 3));
    stopAndExpectCleanExit();
}

// The echo hook answers, every transfer's latency shows in the request's
// time, and the trace and its table show the request.
TEST_F(Scenarios, SlowAnalogAnswersThroughItsLatencyAndTheTraceShowsIt) {
    start({"--scenario", kExamples + "slow_analog.toml", "--trace", tracePath()});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->ask(atomicGet(0x31, 2, "hi"), 10), std::string("\0\0\0\0\x02\0\0\0hi", 10));
    client->close();
    ASSERT_TRUE(testing_support::eventually(
        [&] { return fileText(tracePath()).find("\"event\":\"end\"") != std::string::npos; }));
    const std::string trace = fileText(tracePath());
    EXPECT_NE(trace.find("\"request\":\"AtomicGet\",\"opcode\":3,\"dsp_opcode\":49,\"size\":2,"
                         "\"reply_opcode\":49,\"reply_length_wanted\":2,\"payload\":\"6869\","
                         "\"status\":0,\"status_text\":\"success\",\"reply_length\":2"),
              std::string::npos)
        << trace;
    std::smatch took;
    ASSERT_TRUE(std::regex_search(trace, took, std::regex("\"took_ms\":([0-9]+)")));
    EXPECT_GE(std::stoi(took[1]), 45);  // a command, a status read and the answer: 15 ms each
    const auto table =
        testing_support::runProgram("tovelctl", {"trace", tracePath(), "--session", "1"});
    EXPECT_EQ(table.exitCode, 0);
    EXPECT_NE(table.output.find("AtomicGet       49      2 0 success"), std::string::npos)
        << table.output;
    stopAndExpectCleanExit();
}

}  // namespace

namespace {

// The acceptance timeline, in real time (the one slow test here): slot 1
// hangs at 1 s and is pulled at 3 s while a client loops Rem_AtomicGet on it.
// Replies are 0 until the hang. The request that meets the hung DSP waits
// for its handshake (5000 ms) and is cut short by the pull: the link's
// transfers fail, it pauses 1000 ms before it reports the removal, and the
// request answers 12; every request after that answers 11 at once. (A 13
// would need the DSP to stay hung for the whole 5000 ms.)
TEST_F(Scenarios, HangThenDetachGivesTheClientItsStatusesOnTimeAndTheTraceAgrees) {
    const std::string file = root.path() + "/hang_detach.toml";
    std::ofstream(file)
        << "[[board]]\nkind = \"rf\"\n"
           "[[event]]\nat_ms = 1000\naction = \"fault\"\nslot = 1\nfault = \"hang\"\n"
           "[[event]]\nat_ms = 3000\naction = \"detach\"\nslot = 1\n";
    start({"--scenario", file, "--trace", tracePath()});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client);
    // When the scenario started, from the first event's countdown.
    const auto events = sim({"events"});
    const auto now = Clock::now();
    std::smatch due;
    ASSERT_TRUE(std::regex_search(events.output, due, std::regex("due in ([0-9]+) ms")))
        << events.output;
    const auto start = now - (1000ms - std::chrono::milliseconds(std::stoi(due[1])));

    struct Answer {
        std::uint32_t status;
        double sentS, answeredS;
    };
    const auto seconds = [&](Clock::time_point t) {
        return std::chrono::duration<double>(t - start).count();
    };
    std::vector<Answer> answers;
    while (answers.empty() || answers.back().status != 11) {
        const auto sent = Clock::now();
        const std::string reply = client->ask(atomicGet(0x7e, 2, "ok"), 10);
        ASSERT_EQ(reply.size(), 10u);
        answers.push_back({statusOf(reply), seconds(sent), seconds(Clock::now())});
        ASSERT_LT(answers.back().answeredS, 8.0);
        std::this_thread::sleep_for(50ms);
    }
    client->close();

    std::vector<std::uint32_t> statuses;
    for (const Answer& a : answers) {
        if (statuses.empty() || statuses.back() != a.status) statuses.push_back(a.status);
        if (a.status == 0) {
            EXPECT_LT(a.answeredS, 1.2);
        }
        if (a.sentS < 0.8) {
            EXPECT_EQ(a.status, 0u) << "sent at " << a.sentS;
        }
    }
    EXPECT_EQ(statuses, (std::vector<std::uint32_t>{0, 12, 11}));
    const auto pulled = std::find_if(answers.begin(), answers.end(),
                                     [](const Answer& a) { return a.status == 12; });
    ASSERT_NE(pulled, answers.end());
    EXPECT_NEAR(pulled->answeredS, 4.05, 0.2);  // pulled at 3 s, reported after its 1 s pause
    EXPECT_NEAR(answers.back().answeredS, 4.05, 0.3);

    // The trace holds exactly those replies, in order.
    ASSERT_TRUE(testing_support::eventually(
        [&] { return fileText(tracePath()).find("\"event\":\"end\"") != std::string::npos; }));
    std::istringstream trace(fileText(tracePath()));
    std::vector<std::uint32_t> traced;
    const std::regex status("\"request\":\"AtomicGet\".*\"status\":([0-9]+),");
    for (std::string line; std::getline(trace, line);) {
        std::smatch m;
        if (std::regex_search(line, m, status)) traced.push_back(std::stoul(m[1]));
    }
    std::vector<std::uint32_t> answered;
    for (const Answer& a : answers) answered.push_back(a.status);
    EXPECT_EQ(traced, answered);
    stopAndExpectCleanExit();
}

}  // namespace
