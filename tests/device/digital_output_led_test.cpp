#include <gtest/gtest.h>

#include "device/digital_output_led.h"
#include "device/dual_led_blinker.h"
#include "device/led_blinker.h"
#include "tests/support/waiting.h"

namespace {

using testing_support::eventually;

TEST(DigitalOutputLed, BlinkersDriveFrontPanelOutputs) {
    DigitalOutput green(6, nullptr), a(0, nullptr), b(14, nullptr);
    DigitalOutputLed greenLed(&green), aLed(&a), bLed(&b);

    LedBlinker greenBlinker(&greenLed, 500, 250);
    DualLedBlinker frontPanel(&aLed, &bLed, 500, 500);
    EXPECT_FALSE(green.isOn());
    greenBlinker.setMode(LedBlinker::ModeOn);
    frontPanel.setMode(2);
    EXPECT_TRUE(eventually([&] { return green.isOn() && b.isOn(); }));
    EXPECT_FALSE(a.isOn());
    greenBlinker.setMode(LedBlinker::ModeOff);
    EXPECT_TRUE(eventually([&] { return !green.isOn(); }));
}

}  // namespace
