#pragma once
// The simulated unit's watchdog hardware: both controller boards' watchdogs
// are present, and the platform answer decides which one the system arms.
// The application keeps one WatchdogHardware for its whole run; a control
// tool asks watchdogState() what the armed watchdog is doing.
#include "sim/watchdog_os_timer.h"
#include "sim/watchdog_unit.h"
#include "sim/watchdog_vendor_library.h"

namespace sim {

class WatchdogHardware {
  public:
    WatchdogHardware() = default;
    VendorWatchdogLibrary& vendorLibrary() { return vendor_; }

  private:
    VendorWatchdogLibrary vendor_;
    OsTimerBlock timer_;
};

// The state of the simulated watchdog that the system armed: the vendor
// library's if it was started, otherwise the timer block's; `present` is
// false when neither is installed.
WatchdogState watchdogState();

}  // namespace sim
