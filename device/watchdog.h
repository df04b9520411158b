#pragma once
// The unit's hardware watchdog: armed on first use, serviced by the
// controller's watchdog thread, fired by the power-fail thread to reset the
// unit. The KTX board reaches it through the board vendor's library
// "adsapidll.dll"; the VBQ board through match register 3 of the processor's
// operating-system timer, whose registers are mapped into the process.
#include "platform/win_types.h"

class WatchDog {
  public:
    // The process's watchdog, created (and armed with kDefaultIntervalSeconds)
    // by the first call and never deleted. No lock: the controller's watchdog
    // thread makes the first call before any other thread can.
    static WatchDog* Singleton();

    static constexpr DWORD kDefaultIntervalSeconds = 127;
    static constexpr DWORD kKtxMaxSeconds = 127;  // the i.MX31 watchdog's limit
    static constexpr DWORD kVbqMaxSeconds =
        1165;                                   // largest whole seconds whose ticks fit in 32 bits
    static constexpr DWORD kTimerHz = 3686400;  // the operating-system timer's counter clock
    static constexpr DWORD kTimerPhysicalBase = 0x40A00000;
    static constexpr DWORD kTimerBlockSize = 0x1000;
    // Register offsets within the timer block.
    static constexpr DWORD OSMR3 = 0x0C;  // match register 3: reset when the counter reaches it
    static constexpr DWORD OSCR = 0x10;   // free-running counter
    static constexpr DWORD OSSR = 0x14;   // status (write 8 to clear the match-3 bit)
    static constexpr DWORD OWER = 0x18;   // watchdog enable
    static constexpr DWORD OIER = 0x1C;   // interrupt enable
    static constexpr DWORD kTriggerTicks = 3686;  // about 1 ms of counter ticks

    // Arms the watchdog with `intervalSeconds`, cut to the platform's limit.
    explicit WatchDog(DWORD intervalSeconds);
    // Never runs for the singleton, which lives until the process ends.
    ~WatchDog();
    WatchDog(const WatchDog&) = delete;
    WatchDog& operator=(const WatchDog&) = delete;

    // Restarts the interval; must come more often than once per interval.
    void service();
    // Makes the watchdog expire about 1 ms from now: resets the unit.
    void trigger();

    // The reload interval: milliseconds on KTX, timer ticks on VBQ.
    DWORD interval() const { return m_interval; }
    // Whether the hardware was reached and armed. When it was not (missing
    // library, entry or register mapping), service() and trigger() leave the
    // hardware alone.
    bool armed() const { return armed_; }

    // Tests only: deletes the singleton so the next Singleton() arms afresh.
    static void resetSingletonForTest();

  private:
    // The vendor entries. Their answers are not examined.
    using StartEntry = BOOL (*)();
    using SetTimeEntry = BOOL (*)(DWORD* milliseconds);
    using ServiceEntry = BOOL (*)();

    void armKtx(DWORD intervalSeconds);
    void armVbq(DWORD intervalSeconds);
    DWORD readRegister(DWORD offset) const;
    void writeRegister(DWORD offset, DWORD value);

    HANDLE library_ = NULL_HANDLE;
    StartEntry start_ = nullptr;
    SetTimeEntry setTime_ = nullptr;
    ServiceEntry service_ = nullptr;  // looked up again at every service
    volatile DWORD* registers_ = nullptr;
    DWORD m_interval = 0;
    bool armed_ = false;
};
