#include "device/dual_led_blinker.h"

DualLedBlinker::DualLedBlinker(LedLine* lineA, LedLine* lineB, DWORD offTime, DWORD onTime)
    : lineA_(lineA), lineB_(lineB), offTime_(offTime), onTime_(onTime) {
    if (!lineA_ || !lineB_) return;
    lineA_->setOff();
    lineB_->setOff();
    thread_.start([this] { pass(); }, "dual-led-blinker");
}

DualLedBlinker::~DualLedBlinker() {
    thread_.stop();
}

void DualLedBlinker::setMode(int mode) {
    if (mode >= 0 && mode <= kHighestMode) mode_ = mode;
}

void DualLedBlinker::setTimes(DWORD offTime, DWORD onTime) {
    offTime_ = offTime;
    onTime_ = onTime;
}

void DualLedBlinker::hold(LedLine* line, bool isOn, bool wantOn) {
    if (isOn == wantOn) return;
    if (wantOn)
        line->setOn();
    else
        line->setOff();
}

void DualLedBlinker::blink(LedLine* line, bool isOn) {
    if (isOn) {
        line->setOff();
        thread_.pause(offTime_.load());
    } else {
        line->setOn();
        thread_.pause(onTime_.load());
    }
}

void DualLedBlinker::pass() {
    const bool aOn = lineA_->isOn();
    const bool bOn = lineB_->isOn();
    const int mode = mode_.load();
    switch (mode) {
        case 0:
        case 1:
        case 2:
        case 3:
            // Bit 0 of the steady modes lights A, bit 1 lights B.
            hold(lineA_, aOn, (mode & 1) != 0);
            hold(lineB_, bOn, (mode & 2) != 0);
            thread_.pause(kSteadyPauseMs);
            break;
        case 4:
        case 5:
            hold(lineB_, bOn, mode == 5);
            blink(lineA_, aOn);
            break;
        case 6:
        case 7:
            hold(lineA_, aOn, mode == 7);
            blink(lineB_, bOn);
            break;
        case 8:  // in opposition: both lines written on every pass
            if (aOn) {
                lineA_->setOff();
                lineB_->setOn();
                thread_.pause(offTime_.load());
            } else {
                lineA_->setOn();
                lineB_->setOff();
                thread_.pause(onTime_.load());
            }
            break;
        case 9:  // in step
            if (aOn) {
                lineA_->setOff();
                lineB_->setOff();
                thread_.pause(offTime_.load());
            } else {
                lineA_->setOn();
                lineB_->setOn();
                thread_.pause(onTime_.load());
            }
            break;
        default:
            mode_ = 0;
            break;
    }
}
