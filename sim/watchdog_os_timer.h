#pragma once
// The VBQ processor's operating-system timer block, simulated at physical
// address 0x40A00000 (4096 bytes, 32-bit registers): the free-running
// counter OSCR at 3,686,400 Hz taken from the host clock, the match
// registers OSMR0-3, and the watchdog enable OWER. Once OWER bit 0 has been
// set (it cannot be cleared again), the counter reaching OSMR3 resets the
// unit (see watchdog_unit.h).
//
// The system reads and writes the registers as plain memory, so the block
// works by publishing: refresh() stores the counter for the clock's current
// time in OSCR and looks at what the system wrote. The monitor thread
// refreshes every 10 ms of host-clock time; a test that moves a ManualClock
// on calls refresh() itself before the system reads the counter, as the
// counter on the board is always current. The status register OSSR is not
// modelled (its write-one-to-clear bits cannot be seen in plain memory).
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "platform/win_types.h"
#include "sim/watchdog_unit.h"

namespace sim {

class LinuxWatchdogDevice;

// With useLinuxWatchdogDevice() the armed block also drives a real Linux
// watchdog device: opened when the watchdog is enabled, its time-out the
// interval the system set, kept alive at each service.
class OsTimerBlock {
  public:
    static constexpr DWORD kPhysicalBase = 0x40A00000;
    static constexpr DWORD kSize = 0x1000;
    static constexpr DWORD kHz = 3686400;
    enum Register : DWORD {
        OSMR0 = 0x00,
        OSMR1 = 0x04,
        OSMR2 = 0x08,
        OSMR3 = 0x0C,
        OSCR = 0x10,
        OSSR = 0x14,
        OWER = 0x18,
        OIER = 0x1C,
    };

    // Claims the physical block with the counter at `startCount`; `monitor`
    // starts the thread that refreshes it and resets the unit on a match.
    // One object at a time, created after the clock in force is installed
    // (the counter follows that clock's ticks).
    explicit OsTimerBlock(DWORD startCount = 0, bool monitor = true);
    ~OsTimerBlock();
    OsTimerBlock(const OsTimerBlock&) = delete;
    OsTimerBlock& operator=(const OsTimerBlock&) = delete;

    // False when the physical block could not be claimed.
    bool present() const { return !words_.empty(); }

    // Publishes the counter for the current time and notes a match of
    // register 3 that the counter passed since the last refresh (the monitor
    // then resets the unit at once).
    void refresh();
    // The registers as the system sees them (0 and ignored when not present).
    DWORD read(Register r) const;
    void write(Register r, DWORD value);
    // Refreshes, then describes the watchdog.
    WatchdogState state();

    static OsTimerBlock* installed();

  private:
    static DWORD ticksToMs(std::uint64_t ticks) { return static_cast<DWORD>(ticks * 1000 / kHz); }
    // Publishes the counter; true when the watchdog has expired.
    bool update();
    // Follows an enable or a service on the Linux device, if one is chosen.
    void driveLinuxDevice();
    WatchdogCheck check();

    std::span<std::uint32_t> words_;
    mutable std::mutex mutex_;
    DWORD startCount_;
    DWORD lastTick_;
    std::uint64_t elapsedMs_ = 0;
    DWORD published_;         // the counter value in OSCR
    bool enabled_ = false;    // OWER bit 0 has been seen set
    bool expired_ = false;    // the counter reached OSMR3 while enabled
    DWORD seenMatch_ = 0;     // OSMR3 as last seen
    DWORD serviceCount_ = 0;  // the counter value the last OSMR3 was computed from
    std::unique_ptr<LinuxWatchdogDevice> device_;
    bool deviceOpened_ = false;  // tried once, as the watchdog is enabled once
    DWORD deviceIntervalMs_ = 0;
    std::unique_ptr<WatchdogMonitor> monitor_;
};

}  // namespace sim
