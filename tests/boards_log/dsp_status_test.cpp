#include <gtest/gtest.h>

#include "boards/dsp_status.h"

// Success and unknown values share the default row (and its long text is
// dspDead's); the running states share one text per table.
TEST(DspStatusText, SharedRows) {
    EXPECT_EQ(dspStatusText(dspDead), L"DSP not responding!");
    for (int s : {int{dspOk}, 17, 154, 1000, -1}) {
        EXPECT_EQ(dspStatusShortText(s), L"DSP Dead!") << s;
        EXPECT_EQ(dspStatusText(s), L"DSP not responding!") << s;
    }
    for (int s : {4, 5, 7, 8}) {
        EXPECT_EQ(dspStatusShortText(s), L"No Error!") << s;
        EXPECT_EQ(dspStatusText(s), L"Unknown or Not a DSP Error!") << s;
    }
}
