#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "device/digital_output_led.h"
#include "device/dual_led_blinker.h"
#include "device/led_blinker.h"

namespace {

template <class Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 2000 && !condition(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

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
