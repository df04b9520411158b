#include "sim/watchdog_hardware.h"

namespace sim {

WatchdogState watchdogState() {
    auto* vendor = VendorWatchdogLibrary::installed();
    auto* timer = OsTimerBlock::installed();
    WatchdogState fromVendor = vendor ? vendor->state() : WatchdogState{};
    if (fromVendor.armed) return fromVendor;
    if (timer) return timer->state();
    return fromVendor;
}

}  // namespace sim
