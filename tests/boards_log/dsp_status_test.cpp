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

TEST(DspStatusText, EachCodeHasItsTexts) {
    EXPECT_EQ(dspStatusText(2), L"DSP Stuck in Reset state!");
    EXPECT_EQ(dspStatusText(3), L"DSP Stuck in Idle state!");
    EXPECT_EQ(dspStatusShortText(6), L"DSP overrun!");
    EXPECT_EQ(dspStatusText(9), L"DSP received corrupt command!");
    EXPECT_EQ(dspStatusText(10), L"Cypress received invalid deviceID!");
    EXPECT_EQ(dspStatusText(11), L"Can't open USB/DSP driver!");
    EXPECT_EQ(dspStatusShortText(12), L"USB Comm failed!");
    EXPECT_EQ(dspStatusText(13), L"DSP Comm timed out!");
    EXPECT_EQ(dspStatusText(14), L"Unexpected DSP response!");
    EXPECT_EQ(dspStatusText(15), L"Wrong COF Version!");
    EXPECT_EQ(dspStatusShortText(16), L"Ethernet Error!");
}

TEST(DspStatusText, UnknownValuesGiveTheDefaultRow) {
    for (int s : {17, 154, 1000, -1}) {
        EXPECT_EQ(dspStatusShortText(s), L"DSP Dead!");
        EXPECT_EQ(dspStatusText(s), L"DSP not responding!");
    }
}
