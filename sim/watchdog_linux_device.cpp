#include "sim/watchdog_linux_device.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "platform/debug_out.h"
#include "platform/text.h"

namespace sim {
namespace {

struct Choice {
    std::mutex mutex;
    std::string path;
};
Choice& choice() {
    static Choice c;
    return c;
}

void report(const std::string& path, const char* what) {
    const int error = errno;
    host::NKDbgPrintfW(L"SIM: watchdog device %S: %S failed (%S)\n", path.c_str(), what,
                       std::strerror(error));
}

// A watchdog is the misc device 10:130 ("/dev/watchdog") or a character
// device of the watchdog class ("/dev/watchdog0"). Asked of the device
// numbers, not by opening it: opening a watchdog starts its countdown.
std::string notAWatchdog(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (!S_ISCHR(st.st_mode)) return "not a watchdog device (not a character device)";
    const unsigned major = ::major(st.st_rdev), minor = ::minor(st.st_rdev);
    if (major == 10 && minor == 130) return {};
    std::error_code ec;
    const auto subsystem = std::filesystem::read_symlink(
        "/sys/dev/char/" + std::to_string(major) + ":" + std::to_string(minor) + "/subsystem", ec);
    if (!ec && subsystem.filename() == "watchdog") return {};
    return "not a watchdog device (character device " + std::to_string(major) + ":" +
           std::to_string(minor) + ")";
}

}  // namespace

bool useLinuxWatchdogDevice(const std::string& path, std::string* error, bool requireWatchdog) {
    if (!path.empty() && ::access(path.c_str(), W_OK) != 0) {
        if (error) *error = "cannot write " + path + ": " + std::strerror(errno);
        report(path, "access");
        return false;
    }
    if (!path.empty() && requireWatchdog) {
        if (const std::string why = notAWatchdog(path); !why.empty()) {
            if (error) *error = path + " is " + why;
            host::NKDbgPrintfW(L"SIM: watchdog device %S refused: %S\n", path.c_str(), why.c_str());
            return false;
        }
    }
    std::lock_guard<std::mutex> lock(choice().mutex);
    choice().path = path;
    return true;
}

std::string linuxWatchdogDevicePath() {
    std::lock_guard<std::mutex> lock(choice().mutex);
    return choice().path;
}

std::unique_ptr<LinuxWatchdogDevice> LinuxWatchdogDevice::openChosen() {
    std::string path = linuxWatchdogDevicePath();
    if (path.empty()) return nullptr;
    int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        report(path, "open");
        return nullptr;
    }
    host::NKDbgPrintfW(L"SIM: watchdog device %S started\n", path.c_str());
    return std::unique_ptr<LinuxWatchdogDevice>(new LinuxWatchdogDevice(std::move(path), fd));
}

LinuxWatchdogDevice::~LinuxWatchdogDevice() {
    ::close(fd_);
}

bool LinuxWatchdogDevice::setTimeout(DWORD milliseconds) {
    int seconds = static_cast<int>((std::max<DWORD>(milliseconds, 1) + 999) / 1000);
    if (::ioctl(fd_, WDIOC_SETTIMEOUT, &seconds) != 0) {
        report(path_, "WDIOC_SETTIMEOUT");
        return false;
    }
    return true;
}

bool LinuxWatchdogDevice::keepAlive() {
    int unused = 0;
    if (::ioctl(fd_, WDIOC_KEEPALIVE, &unused) != 0) {
        report(path_, "WDIOC_KEEPALIVE");
        return false;
    }
    return true;
}

}  // namespace sim
