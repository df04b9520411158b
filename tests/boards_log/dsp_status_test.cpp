#include <gtest/gtest.h>

#include "boards/dsp_status.h"

TEST(DspStatusText, SuccessSharesTheDefaultRow) {
    EXPECT_EQ(dspStatusText(dspOk), L"DSP not responding!");
    EXPECT_EQ(dspStatusText(dspDead), L"DSP not responding!");
    EXPECT_EQ(dspStatusShortText(dspOk), L"DSP Dead!");
}

TEST(DspStatusText, RunningStatesShareOneTextPerTable) {
    for (int s : {4, 5, 7, 8}) {
        EXPECT_EQ(dspStatusShortText(s), L"No Error!");
        EXPECT_EQ(dspStatusText(s), L"Unknown or Not a DSP Error!");
    }
}

TEST(DspStatusText, UnknownValuesGiveTheDefaultRow) {
    for (int s : {17, 154, 1000, -1}) {
        EXPECT_EQ(dspStatusShortText(s), L"DSP Dead!");
        EXPECT_EQ(dspStatusText(s), L"DSP not responding!");
    }
}
