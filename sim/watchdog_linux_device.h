#pragma once
// A real Linux watchdog device ("/dev/watchdog") behind the simulated vendor
// library, for a host that should really reboot when the program stops
// servicing its watchdog. Off unless useLinuxWatchdogDevice() names one.
#include <memory>
#include <string>

#include "platform/win_types.h"

namespace sim {

// Chooses the device that the armed simulated watchdog (the vendor library
// or the OS timer block) drives from the next start on (an empty path turns
// it off). False, with the choice unchanged and the reason on the debug
// output and in `error`, when the path cannot be written or is not a
// watchdog device (a plain file, say). Tests that want a device whose
// requests fail pass `requireWatchdog` false.
bool useLinuxWatchdogDevice(const std::string& path, std::string* error = nullptr,
                            bool requireWatchdog = true);
std::string linuxWatchdogDevicePath();

class LinuxWatchdogDevice {
  public:
    // Opens the chosen device, which starts its countdown. Null (with a debug
    // message) when none is chosen or it cannot be opened.
    static std::unique_ptr<LinuxWatchdogDevice> openChosen();
    // Closes without the magic close: like the unit's watchdog, the device
    // cannot be disarmed and resets the machine unless serviced.
    ~LinuxWatchdogDevice();
    LinuxWatchdogDevice(const LinuxWatchdogDevice&) = delete;
    LinuxWatchdogDevice& operator=(const LinuxWatchdogDevice&) = delete;

    // The device counts whole seconds: the time-out is rounded up, at least 1 s.
    bool setTimeout(DWORD milliseconds);
    bool keepAlive();

  private:
    LinuxWatchdogDevice(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
    std::string path_;
    int fd_;
};

}  // namespace sim
