#include "sim/watchdog_vendor_library.h"

#include <atomic>
#include <map>
#include <string>

#include "platform/clock.h"
#include "platform/modules.h"
#include "sim/watchdog_linux_device.h"

namespace sim {
namespace {

std::atomic<VendorWatchdogLibrary*> current{nullptr};

BOOL entrySetTime(DWORD* milliseconds) {
    auto* library = current.load();
    return library ? library->setTime(milliseconds) : FALSE_;
}
BOOL entryStart() {
    auto* library = current.load();
    return library ? library->start() : FALSE_;
}
BOOL entryService() {
    auto* library = current.load();
    return library ? library->service() : FALSE_;
}

}  // namespace

VendorWatchdogLibrary::VendorWatchdogLibrary(Entries entries, bool monitor) {
    current.store(this);
    if (monitor) monitor_ = std::make_unique<WatchdogMonitor>([this] { return check(); });
    std::map<std::string, host::FARPROC> table;
    if (entries.setTime)
        table["ADSSetWatchDogTime"] = reinterpret_cast<host::FARPROC>(&entrySetTime);
    if (entries.start) table["ADSStartWatchDog"] = reinterpret_cast<host::FARPROC>(&entryStart);
    if (entries.service)
        table["ADSServiceWatchdog"] = reinterpret_cast<host::FARPROC>(&entryService);
    host::registerModule(kModuleName, std::move(table));
}

VendorWatchdogLibrary::~VendorWatchdogLibrary() {
    host::unregisterModule(kModuleName);
    monitor_.reset();
    current.store(nullptr);
}

VendorWatchdogLibrary* VendorWatchdogLibrary::installed() {
    return current.load();
}

BOOL VendorWatchdogLibrary::setTime(DWORD* milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls_.setTime;
    if (!milliseconds || *milliseconds == 0) return FALSE_;
    calls_.lastTimeMs = *milliseconds;
    timeoutMs_ = std::min(*milliseconds, kMaxTimeoutMs);
    // A new time-out takes effect at once on a running watchdog: the
    // countdown restarts with it (this is how a 1-ms time-out fires it).
    lastServiceTick_ = host::GetTickCount();
    if (device_) device_->setTimeout(timeoutMs_);
    lock.unlock();
    pokeMonitor();
    return TRUE_;
}

BOOL VendorWatchdogLibrary::start() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls_.start;
    started_ = true;
    lastServiceTick_ = host::GetTickCount();
    if (!device_) {
        device_ = LinuxWatchdogDevice::openChosen();
        if (device_) device_->setTimeout(timeoutMs_);
    } else {
        device_->keepAlive();
    }
    lock.unlock();
    pokeMonitor();
    return TRUE_;
}

BOOL VendorWatchdogLibrary::service() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++calls_.service;
    if (!started_) return FALSE_;
    lastServiceTick_ = host::GetTickCount();
    if (device_) device_->keepAlive();
    return TRUE_;
}

VendorWatchdogLibrary::Calls VendorWatchdogLibrary::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

WatchdogCheck VendorWatchdogLibrary::check() const {
    std::lock_guard<std::mutex> lock(mutex_);
    WatchdogCheck result;
    if (!started_) return result;
    const DWORD since = host::GetTickCount() - lastServiceTick_;
    if (since >= timeoutMs_)
        result.expiredBecause =
            L"adsapidll.dll watchdog not serviced for " + std::to_wstring(timeoutMs_) + L" ms";
    else
        result.msToExpiry = timeoutMs_ - since;
    return result;
}

void VendorWatchdogLibrary::pokeMonitor() {
    if (monitor_) monitor_->poke();
}

WatchdogState VendorWatchdogLibrary::state() const {
    std::lock_guard<std::mutex> lock(mutex_);
    WatchdogState s;
    s.present = true;
    s.hardware = kModuleName;
    s.armed = started_;
    s.intervalMs = timeoutMs_;
    if (started_) {
        s.sinceServiceMs = host::GetTickCount() - lastServiceTick_;
        s.expired = s.sinceServiceMs >= timeoutMs_;
        s.remainingMs = s.expired ? 0 : timeoutMs_ - s.sinceServiceMs;
    }
    return s;
}

}  // namespace sim
