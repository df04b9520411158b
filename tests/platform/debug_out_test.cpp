#include <gtest/gtest.h>

#include <string>

#include "platform/debug_out.h"
#include "tests/support/test_support.h"

using host::DebugHistory;

namespace {

DebugHistory historyNow() {
    DebugHistory history;
    host::setDebugSink(host::setDebugSink({}), &history);
    return history;
}

}  // namespace

TEST(DebugOutput, TheHistoryStaysBoundedWhateverIsWritten) {
    testing_support::DebugCapture capture;
    for (std::size_t i = 0; i < DebugHistory::kDebugHistoryLines + 5; ++i)
        host::NKDbgPrintfW(L"line %d\n", static_cast<int>(i));
    // Messages without a newline: the line ends at the cap.
    for (int i = 0; i < 300; ++i) host::NKDbgPrintfW(L"%s", L"ab");
    const DebugHistory history = historyNow();
    ASSERT_EQ(history.recentLines.size(), DebugHistory::kDebugHistoryLines);
    EXPECT_EQ(history.recentLines.front(), L"line 6");
    std::wstring capped;
    while (capped.size() < DebugHistory::kDebugHistoryLineChars) capped += L"ab";
    EXPECT_EQ(history.recentLines.back(), capped);
    EXPECT_EQ(history.unfinishedLine.size(), 600 - DebugHistory::kDebugHistoryLineChars);
}

TEST(DebugOutput, SilencedOutputReachesNeitherTheSinkNorTheHistory) {
    testing_support::DebugCapture capture;
    {
        const host::DebugSilence silence;
        host::NKDbgPrintfW(L"dropped %d\n", 1);
    }
    host::NKDbgPrintfW(L"kept\n");
    EXPECT_EQ(capture.all(), L"kept\n");
    EXPECT_EQ(historyNow().recentLines, std::vector<std::wstring>{L"kept"});
}
