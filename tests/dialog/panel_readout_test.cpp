// The panel as text (tovelsim leds, cpu) and the status window's layout.
#include "app/panel_readout.h"
#include "app/dialog_layout.h"
#include "device/platform_id.h"
#include "tests/dialog/dialog_fixture.h"

namespace dialog_test {
namespace {

TEST_F(DialogTest, LedsReportFollowsTheBlinkersAndThePlatformsLines) {
    EXPECT_EQ(ledsReport(), "error no status dialog");
    struct Case {
        bool ktx;
        const char* report;
    };
    for (const Case c :
         {Case{true,
               "ok green=blink line=6 lit=no on_ms=250 off_ms=500; front_a=off line=0 lit=no; "
               "front_b=blink line=14 lit=no on_ms=500 off_ms=500"},
          Case{false,
               "ok green=blink line=19 lit=no on_ms=250 off_ms=500; front_a=off line=14 lit=no; "
               "front_b=blink line=15 lit=no on_ms=500 off_ms=500"}}) {
        c.ktx ? onKtx() : onVbq();
        resetPlatformForTest();
        DialogCore core(fakeEnvironment());
        EXPECT_EQ(ledsReport(), "error the LEDs are not set up yet");
        EXPECT_EQ(cpuReport(), "ok cpu=0");
        core.setUpLeds();
        // The blinker threads may have lit a line meanwhile: compare the rest.
        std::string report = ledsReport();
        for (auto at = report.find("lit=yes"); at != std::string::npos; at = report.find("lit=yes"))
            report.replace(at, 7, "lit=no");
        EXPECT_EQ(report, c.report);
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
