#pragma once
// The KTX board vendor's watchdog library "adsapidll.dll", simulated. While
// an object lives, the module is registered with its three entries (or only
// those asked for, to try a library that lacks one):
//   BOOL ADSSetWatchDogTime(DWORD* milliseconds)  the time-out, at most 127 s;
//                                                 reloads a running watchdog
//   BOOL ADSStartWatchDog()                       starts (or restarts) the countdown
//   BOOL ADSServiceWatchdog()                     restarts the countdown
// A started watchdog that is not serviced within its time-out resets the
// unit (see watchdog_unit.h). With useLinuxWatchdogDevice() the entries also
// drive a real Linux watchdog device.
#include <memory>
#include <mutex>

#include "platform/win_types.h"
#include "sim/watchdog_unit.h"

namespace sim {

class LinuxWatchdogDevice;

// Which entries the simulated library exports.
struct VendorEntries {
    bool setTime = true;
    bool start = true;
    bool service = true;
};

class VendorWatchdogLibrary {
  public:
    static constexpr DWORD kMaxTimeoutMs = 127000;  // the i.MX31 watchdog's limit
    static constexpr const wchar_t* kModuleName = L"adsapidll.dll";

    using Entries = VendorEntries;
    // How often each entry was called, and the last time-out asked for.
    struct Calls {
        int setTime = 0;
        int start = 0;
        int service = 0;
        DWORD lastTimeMs = 0;
    };

    // Registers the module; `monitor` starts the thread that resets the unit
    // on expiry. One object at a time.
    explicit VendorWatchdogLibrary(Entries entries = {}, bool monitor = true);
    ~VendorWatchdogLibrary();
    VendorWatchdogLibrary(const VendorWatchdogLibrary&) = delete;
    VendorWatchdogLibrary& operator=(const VendorWatchdogLibrary&) = delete;

    Calls calls() const;
    WatchdogState state() const;

    // The library in place, or null.
    static VendorWatchdogLibrary* installed();

    // The entries' behaviour.
    BOOL setTime(DWORD* milliseconds);
    BOOL start();
    BOOL service();

  private:
    WatchdogCheck check() const;
    void pokeMonitor();

    mutable std::mutex mutex_;
    Calls calls_;
    DWORD timeoutMs_ = kMaxTimeoutMs;
    bool started_ = false;
    DWORD lastServiceTick_ = 0;
    std::unique_ptr<LinuxWatchdogDevice> device_;
    std::unique_ptr<WatchdogMonitor> monitor_;
};

}  // namespace sim
