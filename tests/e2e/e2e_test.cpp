// The tovel program end to end: started as a child process on free ports of
// the loopback interface, driven as remote test software would drive a unit.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/tovel_program.h"
#include "tests/support/waiting.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

using namespace e2e;

TEST_F(TovelProgram, AnswersVersionTelnetAndHttpThenEndsCleanlyOnSigterm) {
    start({});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(client->ask(kVersionRequest, 12), kVersionReply);

    Client telnet(telnetPort);
    ASSERT_TRUE(telnet.connected());
    EXPECT_EQ(telnet.receiveUntilClosed(), "Unit is in Windows GUI mode.\r\n");

    // The replies' texts and headers are the responders' own tests.
    Client page(httpPort);
    ASSERT_TRUE(page.send("GET /x.js HTTP/1.1\r\n\r\n"));
    const std::string reply = page.receiveUntilClosed();
    EXPECT_EQ(reply.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << reply;
    EXPECT_EQ(reply.substr(reply.find("\r\n\r\n") + 4), "window.location.reload(true);");

    stopAndExpectCleanExit();
    EXPECT_EQ(logCount(L"UsbCtlr::Shutdown() entered, have 4 ctlrs"), 1);
}

TEST_F(TovelProgram, OneClientPerBoardAndTheListenerReturnsWhenABoardIsFree) {
    start({"--boards", "t1,rf"});
    auto first = connectWhenListening(remotePort);
    ASSERT_TRUE(first->connected()) << outputText();
    EXPECT_EQ(first->ask(kVersionRequest, 12), kVersionReply);
    Client second(remotePort);
    ASSERT_TRUE(second.connected());
    EXPECT_EQ(second.ask(kVersionRequest, 12), kVersionReply);

    // Both boards are bound: 'theEar' closes and the stack refuses a third client.
    int refusal = 0;
    testing_support::eventually(
        [&] {
            Client third(remotePort);
            if (!third.connected()) refusal = third.error();
            return refusal != 0;
        },
        3s);
    EXPECT_EQ(refusal, static_cast<int>(WSAECONNREFUSED));
    EXPECT_EQ(logCount(L"Shutting down 'theEar'; not listening for further connections"), 1);

    first->close();
    auto fourth = connectWhenListening(remotePort, 3000ms);
    ASSERT_TRUE(fourth->connected());
    EXPECT_EQ(fourth->ask(kVersionRequest, 12), kVersionReply);
    EXPECT_TRUE(logEventually(L"Created Tovel 0x", 3));
    stopAndExpectCleanExit();
}

TEST_F(TovelProgram, WithoutBoardsAClientIsAcceptedAndDropped) {
    start({"--boards", "none"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(client->receiveUntilClosed(), "");  // what gets logged is the controller's test
    // Its own lines reach a file as they happen, not when the program ends.
    const std::string shown = outputText();
    EXPECT_NE(shown.find("tovel: created "), std::string::npos) << shown;
    EXPECT_NE(shown.find("No Boards found!!!\n"), std::string::npos) << shown;
    stopAndExpectCleanExit();
}

TEST_F(TovelProgram, CommandLineControlReachesThePlatformLibrary) {
    const std::string debugLog = root.path() + "/debug.txt";
    start({"--boards", "t1", "--debug-log", debugLog});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    const std::string cmdLineControl = std::string("\x05\x07", 2) + std::string(14, '\0');
    EXPECT_EQ(client->ask(cmdLineControl, 8), kRebootReply);  // status 4, no data
    const auto readLog = [&] { return testing_support::fileText(debugLog); };
    EXPECT_TRUE(testing_support::eventually([&] {
        return readLog().find("RapiUtil!ControlViaCmdLine(0, 0, 0, 0, 0)") != std::string::npos;
    })) << readLog();
}

TEST_F(TovelProgram, SecondUnitOnAHeldRootIsRefusedNamingTheRootAndTheHolder) {
    start({"--boards", "t1"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    // The second program writes to a file of its own: the first one still
    // writes to the fixture's.
    const std::string refusalFile = root.path() + "/second.out";
    host::ChildProcess second(std::string(TOVEL_BUILD_DIR) + "/tovel",
                              {"--root", root.path(), "--headless", "--boards", "t1"}, refusalFile);
    EXPECT_EQ(second.waitForExit(5s), 3);
    const std::string refusal = testing_support::fileText(refusalFile);
    EXPECT_NE(refusal.find("the unit root " + root.path() + " is in use by process "),
              std::string::npos)
        << refusal;
    EXPECT_TRUE(fs::exists(root.path() + "/sim.sock"));  // the running unit's channel stays
    // The running unit still serves its client.
    EXPECT_EQ(client->ask(kVersionRequest, 12), kVersionReply);
    stopAndExpectCleanExit();
}

TEST_F(TovelProgram, BadArgumentsAreRefusedBeforeAnythingStarts) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--boards", "t1,xyz"}, "unknown board kind \"xyz\""},
        {{"--hw-watchdog=" + root.path() + "/no/such/watchdog"}, "--hw-watchdog: cannot write"},
        {{"--hw-watchdog=" + root.path() + "/plain"}, "is not a watchdog device"},
        {{"--scenario", root.path() + "/bad.toml"},
         root.path() + "/bad.toml:4:8: \"slot\" must be in 1..9"},
    };
    root.writeFile(L"plain", "a plain file");
    root.writeFile(L"bad.toml", "[[event]]\nat_ms = 10\naction = \"detach\"\nslot = 12\n");
    for (const auto& [args, message] : cases) {
        start(args);
        EXPECT_EQ(tovel->waitForExit(5s), 2);
        EXPECT_NE(outputText().find(message), std::string::npos) << outputText();
        EXPECT_FALSE(fs::exists(root.path() + "/registry.reg"));
    }
}

}  // namespace
