// The hand-over of status texts and load values from other threads to the
// dialog's own thread, and how the window lays them out.
#include <thread>

#include "app/tovel_dlg.h"
#include "app/window_messages.h"
#include "tests/dialog/dialog_fixture.h"

namespace {

using dialog_test::DialogTest;
using dialog_test::RecordingControls;

TEST(WindowMessages, NamesRegisterOnceAndTheDialogPostsUnderTheRegisteredNames) {
    EXPECT_EQ(registerWindowMessage(DialogCore::kStatusMessageName), DialogCore::statusMessage());
    EXPECT_EQ(registerWindowMessage(DialogCore::kCpuUpdateMessageName),
              DialogCore::cpuUpdateMessage());
    EXPECT_NE(DialogCore::statusMessage(), DialogCore::cpuUpdateMessage());
    EXPECT_GE(DialogCore::statusMessage(), 0xC000u);
}

TEST(WindowMessages, AWaitingMessageIsNotQueuedTwice) {
    PostedMessages queue;
    queue.post(0xC001);
    queue.post(0xC002);
    queue.post(0xC001);
    EXPECT_EQ(queue.pending(), 2u);
    EXPECT_EQ(queue.take(), 0xC001u);
    queue.post(0xC001);  // taken already: queued again
    EXPECT_EQ(queue.take(), 0xC002u);
    EXPECT_EQ(queue.take(), 0xC001u);
    EXPECT_FALSE(queue.take());
}

// Each writer's texts are one repeated letter, so a text put together from
// two writes would show two letters, or the wrong length.
std::wstring textOf(int writer, int index) {
    return std::wstring(100 + index % 37, static_cast<wchar_t>(L'A' + writer));
}

bool wellFormed(const std::wstring& text) {
    if (text.size() < 100) return false;
    for (wchar_t c : text)
        if (c != text[0]) return false;
    return text[0] >= L'A' && text[0] < L'A' + 4;
}

TEST_F(DialogTest, ConcurrentWritersHandOverWholeTextsAndTheLastOneStays) {
    constexpr int kWriters = 4;
    constexpr int kTexts = 2000;
    DialogCore core(fakeEnvironment());
    RecordingControls controls;
    std::atomic<int> done{0};
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([&core, &done, w] {
            for (int i = 0; i < kTexts; ++i) core.StatusMsg(textOf(w, i));
            ++done;
        });
    // The dialog's thread handles the messages while the writers write.
    while (done.load() < kWriters) core.dispatchMessages(controls);
    for (auto& t : writers) t.join();
    core.dispatchMessages(controls);

    ASSERT_FALSE(controls.texts.empty());
    EXPECT_TRUE(controls.positions.empty());  // a status text moves no bar
    for (const auto& text : controls.texts) ASSERT_TRUE(wellFormed(text)) << text.size();
    // The last text stored is the final text of whichever writer stored last,
    // and it is what the status line shows.
    const std::wstring last = core.statusText();
    EXPECT_EQ(controls.texts.back(), last);
    bool aFinalText = false;
    for (int w = 0; w < kWriters; ++w) aFinalText |= last == textOf(w, kTexts - 1);
    EXPECT_TRUE(aFinalText);
    EXPECT_EQ(core.messages().pending(), 0u);
}

// ---- The window's text layout.

TEST(CTovelDlgText, BarFillsItsShareOfTheCells) {
    EXPECT_EQ(CTovelDlg::barText(0, 10, L'#', L'.'), L"..........");
    EXPECT_EQ(CTovelDlg::barText(100, 10, L'#', L'.'), L"##########");
    EXPECT_EQ(CTovelDlg::barText(37, 10, L'#', L'.'), L"####......");
    EXPECT_EQ(CTovelDlg::barText(250, 4, L'#', L'.'), L"####");
    EXPECT_EQ(CTovelDlg::barText(-5, 4, L'#', L'.'), L"....");
    EXPECT_EQ(CTovelDlg::barText(50, 0, L'#', L'.'), L"");
}

TEST(CTovelDlgText, StatusFieldIsOneLineThatShowsItsStart) {
    EXPECT_EQ(CTovelDlg::fieldText(L"No Boards found!!!\n", 40), L"No Boards found!!!");
    EXPECT_EQ(CTovelDlg::fieldText(L"Socket Error\r\nin Receive", 40), L"Socket Error  in Receive");
    EXPECT_EQ(CTovelDlg::fieldText(L"abcdefgh", 5), L"abcde");
    EXPECT_EQ(CTovelDlg::fieldText(L"tab\there", 40), L"tab here");
    EXPECT_EQ(CTovelDlg::fieldText(L"", 5), L"");
}

}  // namespace
