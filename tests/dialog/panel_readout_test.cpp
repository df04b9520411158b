// The panel as text (tovelsim leds, cpu) and the status window's layout.
#include "app/panel_readout.h"
#include "app/dialog_layout.h"
#include "tests/dialog/dialog_fixture.h"

namespace dialog_test {
namespace {

// Before the LEDs are set up and once the dialog is gone (the readout of the
// LEDs themselves is checked with their set-up).
TEST_F(DialogTest, ReadoutsNeedALiveDialogWithItsLedsSetUp) {
    EXPECT_EQ(ledsReport(), "error no status dialog");
    {
        DialogCore core(fakeEnvironment());
        EXPECT_EQ(ledsReport(), "error the LEDs are not set up yet");
        EXPECT_EQ(cpuReport(), "ok cpu=0");
    }
    EXPECT_EQ(cpuReport(), "error no status dialog");
}

TEST(DialogLayoutTest, StatusWrapsAtBlanksWithinTheDialogAndTooSmallDoesNotFit) {
    const std::wstring restart = L"Restart Requested: Wait 5 sec for tovels to self-terminate.";
    struct Case {
        int columns, lines;
        std::vector<std::wstring> rows;  // empty: does not fit
    };
    for (const Case& c : std::vector<Case>{
             {80, 24, {restart}},
             {60, 20, {L"Restart Requested: Wait 5 sec for tovels to", L"self-terminate."}},
             {40, 10, {L"Restart Requested: Wait 5 sec for", L"tovels to self-terminate."}},
             {39, 24, {}},
             {80, 9, {}}}) {
        SCOPED_TRACE(std::to_string(c.columns) + "x" + std::to_string(c.lines));
        const DialogLayout layout = DialogLayout::forTerminal(c.columns, c.lines, restart);
        ASSERT_EQ(layout.fits, !c.rows.empty());
        if (!layout.fits) continue;
        EXPECT_EQ(layout.statusRows, c.rows);
        EXPECT_LE(layout.x + layout.width, c.columns);
        EXPECT_LE(layout.y + layout.height + 1, c.lines);  // the key line too
        EXPECT_GE(layout.inner(), 29);                     // the LED row
    }
    // A word longer than a row is cut; rows past the last are dropped.
    EXPECT_EQ(wrapText(L"abcdefgh ij", 3, 5),
              (std::vector<std::wstring>{L"abc", L"def", L"gh", L"ij"}));
    EXPECT_EQ(wrapText(L"a b c d", 1, 2), (std::vector<std::wstring>{L"a", L"b"}));
    EXPECT_EQ(wrapText(L"\n", 10, 3), std::vector<std::wstring>{L""});
}

}  // namespace
}  // namespace dialog_test
