#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/message_channels.h"
#include "platform/text.h"
#include "tests/support/test_support.h"

using testing_support::DebugCapture;
using testing_support::logLines;
using testing_support::TempUnitRoot;

namespace {

class RecordingDisplay : public StatusDisplay {
  public:
    void StatusMsg(std::wstring text) override {
        std::lock_guard<std::mutex> lock(mutex);
        texts.push_back(std::move(text));
    }
    std::mutex mutex;
    std::vector<std::wstring> texts;
};

std::wstring lastLogLine() {
    auto lines = logLines();
    return lines.empty() ? std::wstring() : lines.back();
}

// Every test has a unit root for the event log and captures the debug output.
class MessageChannels : public ::testing::Test {
  protected:
    TempUnitRoot root;
    DebugCapture debug;
};

}  // namespace

TEST_F(MessageChannels, LongTextIsCutForTheDebugOutputButLoggedWhole) {
    std::wstring text;
    for (int i = 0; i < 600; ++i) text += static_cast<wchar_t>(L'a' + i % 26);
    traceAndLog(text);
    ASSERT_EQ(debug.texts().size(), 1u);
    EXPECT_EQ(debug.texts()[0], text.substr(0, 511));
    EXPECT_EQ(lastLogLine(), text);
}

TEST_F(MessageChannels, TextIsWrittenAsIsNotAsAFormat) {
    traceAndLog(L"100% done %s %d\n");
    EXPECT_EQ(debug.all(), L"100% done %s %d\n");
}

TEST_F(MessageChannels, DebugMessageCarriesThePrefixToLogAndDebugOutput) {
    debugMessage(host::wformat(L"Found %d Boards.\n", 2));
    EXPECT_EQ(debug.all(), L"DEBUG: Found 2 Boards.\n");
    EXPECT_TRUE(testing_support::logContains(L"DEBUG: Found 2 Boards."));
}

TEST_F(MessageChannels, DebugMessagePrefixCountsTowardsTheCut) {
    debugMessage(std::wstring(600, L'x'));
    EXPECT_EQ(debug.all(), L"DEBUG: " + std::wstring(504, L'x'));
}

TEST_F(MessageChannels, StatusMessageWithoutADisplayReachesDebugOutputAndLog) {
    statusMessage(L"No Boards found!!!\n");
    EXPECT_EQ(debug.all(), L"No Boards found!!!\n");
    EXPECT_TRUE(testing_support::logContains(L"No Boards found!!!"));
}

TEST_F(MessageChannels, StatusMessageReachesTheRegisteredDisplayOnly) {
    RecordingDisplay display;
    setStatusDisplay(&display);
    statusMessage(L"Controller Reboot Requested...\n");
    traceAndLog(L"trace only");
    debugMessage(L"debug only");
    setStatusDisplay(nullptr);
    statusMessage(L"after unregistering");
    ASSERT_EQ(display.texts.size(), 1u);
    EXPECT_EQ(display.texts[0], L"Controller Reboot Requested...\n");
    EXPECT_TRUE(testing_support::logContains(L"after unregistering"));
}

TEST_F(MessageChannels, ADisplayMayUnregisterItselfFromWithinStatusMsg) {
    struct SelfRemoving : StatusDisplay {
        int calls = 0;
        void StatusMsg(std::wstring) override {
            ++calls;
            setStatusDisplay(nullptr);
        }
    } display;
    setStatusDisplay(&display);
    statusMessage(L"one");
    statusMessage(L"two");
    EXPECT_EQ(display.calls, 1);
}

// Reporters keep calling while the display goes away; once unregistering has
// returned, the display must never be entered again (it is destroyed then).
TEST_F(MessageChannels, UnregisteredDisplayIsNeverCalledAgainUnderConcurrentReporters) {
    struct GuardedDisplay : StatusDisplay {
        std::atomic<bool> gone{false};
        std::atomic<int> callsAfterGone{0};
        std::atomic<int> calls{0};
        void StatusMsg(std::wstring) override {
            if (gone) ++callsAfterGone;
            ++calls;
            std::this_thread::yield();
            if (gone) ++callsAfterGone;
        }
    };
    for (int round = 0; round < 8; ++round) {
        auto display = std::make_unique<GuardedDisplay>();
        setStatusDisplay(display.get());
        std::atomic<bool> stop{false};
        std::vector<std::thread> reporters;
        for (int t = 0; t < 4; ++t)
            reporters.emplace_back([&stop] {
                while (!stop) statusMessage(L"x");
            });
        while (display->calls < 10) std::this_thread::yield();
        setStatusDisplay(nullptr);
        display->gone = true;
        for (int i = 0; i < 50; ++i) std::this_thread::yield();
        stop = true;
        for (auto& r : reporters) r.join();
        EXPECT_EQ(display->callsAfterGone, 0) << "round " << round;
    }
}

TEST_F(MessageChannels, ReplacingTheDisplayHandsLaterTextsToTheNewOne) {
    RecordingDisplay first, second;
    setStatusDisplay(&first);
    statusMessage(L"a");
    setStatusDisplay(&second);
    statusMessage(L"b");
    setStatusDisplay(nullptr);
    EXPECT_EQ(first.texts, std::vector<std::wstring>{L"a"});
    EXPECT_EQ(second.texts, std::vector<std::wstring>{L"b"});
}
