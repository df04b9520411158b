// The simulated unit driven from outside while tovel runs, the way test
// software authors use tovelsim: pull and plug boards, hang a DSP, fail the
// power, and get errors for commands that make no sense.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "server/remote_protocol.h"
#include "tests/e2e/tovel_program.h"
#include "tests/support/waiting.h"

namespace {

using namespace e2e;

// Rem_AtomicGet of the simulated firmware's echo command: the reply's data is
// the payload sent.
std::string echoRequest(const std::string& payload) {
    return asString(remproto::encodeAtomicGet(0x7E, bytesOf(payload), 0x7E,
                                              static_cast<std::uint32_t>(payload.size())));
}

// The DSP sequence number of the board in `slot` from a `boards` listing.
int sequenceOf(const std::string& listing, int slot) {
    const auto at = listing.find("slot=" + std::to_string(slot) + " ");
    const auto seq = listing.find("seq=", at);
    return at == std::string::npos || seq == std::string::npos ? -1
                                                               : std::stoi(listing.substr(seq + 4));
}

class TovelSim : public TovelProgram {
  protected:
    std::string debugLog() const { return root.path() + "/debug.log"; }
    bool debugEventually(const std::string& fragment) const {
        return testing_support::eventually([&] {
            return testing_support::fileText(debugLog()).find(fragment) != std::string::npos;
        });
    }
};

TEST_F(TovelSim, PulledBoardFailsItsClientIsRetiredAndServesAgainOncePluggedIn) {
    start({"--boards", "t1,rf"});
    auto first = connectWhenListening(remotePort);
    ASSERT_TRUE(first->connected()) << outputText();
    // Boards are handed out in index order: the T1 board (slot 1) first.
    EXPECT_EQ(statusOf(first->ask(echoRequest("ping"), 12)), 0u);
    Client second(remotePort);
    ASSERT_TRUE(second.connected());
    EXPECT_EQ(statusOf(second.ask(echoRequest("ping"), 12)), 0u);

    const auto boards = sim({"boards"});
    EXPECT_EQ(boards.exitCode, 0);
    EXPECT_NE(boards.output.find("slot=1 kind=t1"), std::string::npos) << boards.output;

    EXPECT_EQ(sim({"detach", "1"}).exitCode, 0);
    const std::uint32_t failed = statusOf(first->ask(echoRequest("ping"), 8));
    EXPECT_TRUE(failed == 11u || failed == 12u) << failed;
    EXPECT_TRUE(logEventually(L"This board is being removed!")) << outputText();
    EXPECT_EQ(statusOf(second.ask(echoRequest("ping"), 12)), 0u);
    first->close();

    EXPECT_EQ(sim({"attach", "t1"}).exitCode, 0);
    auto third = connectWhenListening(remotePort);
    ASSERT_TRUE(third->connected());
    const std::string reply = third->ask(echoRequest("back"), 12);
    ASSERT_EQ(reply.size(), 12u) << outputText();
    EXPECT_EQ(statusOf(reply), 0u);
    EXPECT_EQ(reply.substr(8), "back");
    stopAndExpectCleanExit();
}

// Clients that come and go scan for boards each time; a board retired for a
// bad status must not stay away from them until they stop.
TEST_F(TovelSim, BoardRetiredForABadStatusServesTheFirstClientAfterTheFaultClears) {
    start({"--boards", "t1,ip"});
    auto victim = connectWhenListening(remotePort);
    ASSERT_TRUE(victim->connected()) << outputText();
    EXPECT_EQ(statusOf(victim->ask(echoRequest("ping"), 12)), 0u);
    ASSERT_EQ(sim({"fault", "1", "state", "10"}).exitCode, 0);

    // A pass-by that comes while the previous one's session still holds the
    // IP board is dropped, as a client without a free board is: it comes again.
    const auto passBy = [&] {
        EXPECT_TRUE(testing_support::eventually([&] {
            return connectWhenListening(remotePort)->ask(kVersionRequest, kVersionReply.size()) ==
                   kVersionReply;
        })) << outputText();
    };
    passBy();
    EXPECT_TRUE(logEventually(L"This board is being removed!")) << outputText();
    EXPECT_EQ(statusOf(victim->ask(echoRequest("ping"), 8)), 11u);
    victim->close();
    EXPECT_TRUE(logEventually(L"Purging DeadCtlrs ... ")) << outputText();
    passBy();
    passBy();

    ASSERT_EQ(sim({"fault", "1", "clear"}).exitCode, 0);
    auto next = connectWhenListening(remotePort);
    EXPECT_EQ(next->ask(echoRequest("back"), 12).substr(8), "back") << outputText();
    const std::string before = sim({"boards"}).output;
    EXPECT_EQ(statusOf(next->ask(echoRequest("again"), 13)), 0u);
    // The command went to the T1 board, booted again as a new controller.
    const std::string after = sim({"boards"}).output;
    EXPECT_EQ(sequenceOf(after, 1), sequenceOf(before, 1) + 2) << before << after;
    EXPECT_EQ(logCount(L"Boot successful (version 102.2)"), 2);
    stopAndExpectCleanExit();
}

TEST_F(TovelSim, PowerFailShutsTheUnitDownAndTheWatchdogResetsIt) {
    start({"--boards", "t1", "--debug-log", debugLog()});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(sim({"powerfail"}).exitCode, 0);
    EXPECT_TRUE(debugEventually("Power Fail Interrupt! Shuting down..."));
    EXPECT_TRUE(debugEventually("File System Quiesced."));
    // The triggered watchdog resets the simulated unit: the documented exit code.
    EXPECT_EQ(tovel->waitForExit(10s), 23) << outputText();
    EXPECT_TRUE(debugEventually("SIMULATED HARDWARE WATCHDOG EXPIRED"));
    EXPECT_EQ(logCount(L"Hardware watchdog expired ("), 1);
}

TEST_F(TovelSim, BadCommandsAreAnsweredWithErrorsAndTheUnitRunsOn) {
    start({"--boards", "t1"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    // Which commands are refused is the console's own test; the program passes its verdict on.
    for (const auto& command :
         std::vector<std::vector<std::string>>{{"frobnicate"}, {"fault", "1", "latency", "-5"}}) {
        const auto answer = sim(command);
        EXPECT_EQ(answer.exitCode, 1) << command[0];
        EXPECT_EQ(answer.output.rfind("error ", 0), 0u) << answer.output;
    }
    EXPECT_EQ(statusOf(client->ask(echoRequest("ping"), 12)), 0u);
    const auto watchdog = sim({"watchdog"});
    EXPECT_EQ(watchdog.exitCode, 0);
    EXPECT_NE(watchdog.output.find("armed"), std::string::npos) << watchdog.output;
    stopAndExpectCleanExit();
}

}  // namespace

namespace {

// How many slots of `tovelsim boards` show `version`.
int slotsWithVersion(const std::string& boards, const std::string& version) {
    int n = 0;
    for (std::size_t at = boards.find(" version=" + version + " "); at != std::string::npos;
         at = boards.find(" version=" + version + " ", at + 1))
        ++n;
    return n;
}

std::string versionOfKind(const std::string& boards, const std::string& kind) {
    const std::size_t line = boards.find(" kind=" + kind + " ");
    const std::size_t at = boards.find(" version=", line);
    if (line == std::string::npos || at == std::string::npos) return {};
    return boards.substr(at + 9, boards.find(' ', at + 9) - at - 9);
}

}  // namespace

// The README's download-and-boot on a four-board unit: one tovelctl run, one
// connection, so the board that boots is the one whose kind got the image.
TEST_F(TovelSim, OneTovelctlRunDownloadsAnImageAndBootsTheBoardThatGotIt) {
    start({"--boards", "t1,rf,ip,pots"});
    ASSERT_TRUE(connectWhenListening(remotePort)->connected()) << outputText();
    const std::string before = sim({"boards"}).output;
    const std::string rfVersion = versionOfKind(before, "rf");
    ASSERT_FALSE(rfVersion.empty()) << before;
    ASSERT_EQ(slotsWithVersion(before, rfVersion), 1) << before;

    const auto run = testing_support::runProgram(
        "tovelctl",
        {"--port", std::to_string(remotePort), "--connect-timeout", "20000", "cof-download",
         root.hostPath(L"\\Program Files\\Orvane Instruments\\480\\rf.cof"), "then", "boot"});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_NE(run.output.find("status: 4 "), std::string::npos) << run.output;
    // One other board now runs the rf program: the one whose kind's file got it.
    const std::string after = sim({"boards"}).output;
    EXPECT_EQ(slotsWithVersion(after, rfVersion), 2) << after;
}
