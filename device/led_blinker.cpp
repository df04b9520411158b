#include "device/led_blinker.h"

LedBlinker::LedBlinker(LedLine* line, DWORD offTime, DWORD onTime)
    : line_(line), offTime_(offTime), onTime_(onTime) {
    if (!line_) return;
    line_->setOff();
    thread_.start([this] { pass(); }, "led-blinker");
}

LedBlinker::~LedBlinker() {
    thread_.stop();
}

void LedBlinker::setMode(int mode) {
    if (mode >= ModeOff && mode <= ModeBlink) mode_ = mode;
}

void LedBlinker::pass() {
    const bool on = line_->isOn();
    switch (mode_.load()) {
        case ModeOff:
            if (on) line_->setOff();
            thread_.pause(kSteadyPauseMs);
            break;
        case ModeOn:
            if (!on) line_->setOn();
            thread_.pause(kSteadyPauseMs);
            break;
        case ModeBlink:
            if (on) {
                line_->setOff();
                thread_.pause(offTime_.load());
            } else {
                line_->setOn();
                thread_.pause(onTime_.load());
            }
            break;
        default:
            mode_ = ModeOff;
            break;
    }
}
