#pragma once
// DualLedBlinker: drives the two lines of the front-panel LED together from
// a thread of its own. Modes (A, B):
//   0 off, off   1 on, off   2 off, on   3 on, on            (steady, 50-ms passes)
//   4 blinks, off   5 blinks, on   6 off, blinks   7 on, blinks
//   8 A and B blink in opposition   9 A and B blink in step
// A blinking line that is on is switched off and the off time follows;
// otherwise it is switched on and the on time follows.
#include <atomic>

#include "device/blinker_thread.h"
#include "device/led_line.h"
#include "platform/win_types.h"

class DualLedBlinker {
  public:
    static constexpr int kHighestMode = 9;
    static constexpr DWORD kSteadyPauseMs = 50;

    // Switches both lines off and starts the thread in mode 0. Without both
    // lines the blinker does nothing.
    DualLedBlinker(LedLine* lineA, LedLine* lineB, DWORD offTime, DWORD onTime);
    // Stops the thread (at once, not at its next pass) and waits for it.
    virtual ~DualLedBlinker();
    DualLedBlinker(const DualLedBlinker&) = delete;
    DualLedBlinker& operator=(const DualLedBlinker&) = delete;

    // 0 to 9; any other value is ignored. Takes effect at the next pass.
    void setMode(int mode);
    // Replaces both pauses, unchecked; takes effect at the next pass.
    void setTimes(DWORD offTime, DWORD onTime);
    int mode() const { return mode_.load(); }
    DWORD offTime() const { return offTime_.load(); }
    DWORD onTime() const { return onTime_.load(); }

  private:
    void pass();
    // Switches a steady line only when it is not already as wanted.
    static void hold(LedLine* line, bool isOn, bool wantOn);
    void blink(LedLine* line, bool isOn);

    std::atomic<int> mode_{0};
    LedLine* const lineA_;  // not owned
    LedLine* const lineB_;  // not owned
    std::atomic<DWORD> offTime_;
    std::atomic<DWORD> onTime_;
    BlinkerThread thread_;
};
