#pragma once
// LedBlinker: drives one LED line (the green LED) from a thread of its own:
// off, on, or blinking with its own on and off times.
#include <atomic>

#include "device/blinker_thread.h"
#include "device/led_line.h"
#include "platform/win_types.h"

class LedBlinker {
  public:
    static constexpr int ModeOff = 0;
    static constexpr int ModeOn = 1;
    static constexpr int ModeBlink = 2;
    static constexpr DWORD kSteadyPauseMs = 50;

    // Switches the line off and starts the thread in mode 0. Without a line
    // the blinker does nothing.
    LedBlinker(LedLine* line, DWORD offTime, DWORD onTime);
    // Stops the thread (at once, not at its next pass) and waits for it.
    virtual ~LedBlinker();
    LedBlinker(const LedBlinker&) = delete;
    LedBlinker& operator=(const LedBlinker&) = delete;

    // 0 off, 1 on, 2 blink; any other value is ignored. Takes effect at the next pass.
    void setMode(int mode);
    int mode() const { return mode_.load(); }
    DWORD offTime() const { return offTime_.load(); }
    DWORD onTime() const { return onTime_.load(); }

  private:
    void pass();

    std::atomic<int> mode_{ModeOff};
    LedLine* const line_;  // not owned
    std::atomic<DWORD> offTime_;
    std::atomic<DWORD> onTime_;
    BlinkerThread thread_;  // its running flag is the blinker's
};
