#include "sim/watchdog_os_timer.h"

#include <atomic>

#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/physmem.h"
#include "sim/watchdog_linux_device.h"

namespace sim {
namespace {

std::atomic<OsTimerBlock*> current{nullptr};

}  // namespace

OsTimerBlock::OsTimerBlock(DWORD startCount, bool monitor)
    : startCount_(startCount),
      lastTick_(host::GetTickCount()),
      published_(startCount),
      serviceCount_(startCount) {
    words_ = host::registerPhysicalRegion(kPhysicalBase, kSize);
    if (words_.empty()) {
        host::NKDbgPrintfW(L"SIM: the OS timer block at 0x%08x could not be set up\n",
                           kPhysicalBase);
        return;
    }
    write(OSCR, startCount);
    current.store(this);
    if (monitor) monitor_ = std::make_unique<WatchdogMonitor>([this] { return check(); });
}

OsTimerBlock::~OsTimerBlock() {
    monitor_.reset();
    device_.reset();
    if (words_.empty()) return;
    current.store(nullptr);
    host::unregisterPhysicalRegion(kPhysicalBase);
}

OsTimerBlock* OsTimerBlock::installed() {
    return current.load();
}

DWORD OsTimerBlock::read(Register r) const {
    if (words_.empty()) return 0;
    return std::atomic_ref<std::uint32_t>(words_[r / 4]).load(std::memory_order_relaxed);
}

void OsTimerBlock::write(Register r, DWORD value) {
    if (words_.empty()) return;
    std::atomic_ref<std::uint32_t>(words_[r / 4]).store(value, std::memory_order_relaxed);
}

void OsTimerBlock::refresh() {
    if (update() && monitor_) monitor_->poke();
}

bool OsTimerBlock::update() {
    if (words_.empty()) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const DWORD now = host::GetTickCount();
    const std::uint64_t before = elapsedMs_ * kHz / 1000;
    elapsedMs_ += static_cast<DWORD>(now - lastTick_);
    lastTick_ = now;
    const std::uint64_t after = elapsedMs_ * kHz / 1000;
    const DWORD previous = published_;
    published_ = static_cast<DWORD>(startCount_ + after);
    write(OSCR, published_);

    // The system computes a new match from the counter it read, which is
    // the value published before this refresh.
    const DWORD match = read(OSMR3);
    const bool serviced = match != seenMatch_;
    if (serviced) {
        seenMatch_ = match;
        serviceCount_ = previous;
    }
    const bool wasEnabled = enabled_;
    if (read(OWER) & 1) enabled_ = true;
    if (enabled_ && (serviced || !wasEnabled)) driveLinuxDevice();
    // The counter passed every value in (previous, published]; it passes a
    // match once per turn of its 32 bits.
    const std::uint64_t advanced = after - before;
    const DWORD distance = match - previous;
    if (enabled_ && distance != 0 && distance <= advanced) expired_ = true;
    return expired_;
}

void OsTimerBlock::driveLinuxDevice() {
    if (!deviceOpened_) {
        deviceOpened_ = true;
        device_ = LinuxWatchdogDevice::openChosen();
    }
    if (!device_) return;
    const DWORD interval = ticksToMs(seenMatch_ - serviceCount_);
    if (interval != deviceIntervalMs_) {
        deviceIntervalMs_ = interval;
        device_->setTimeout(interval);
    }
    device_->keepAlive();
}

WatchdogCheck OsTimerBlock::check() {
    update();
    std::lock_guard<std::mutex> lock(mutex_);
    WatchdogCheck result;
    if (expired_) result.expiredBecause = L"OS timer counter reached match register 3";
    // Rounded down: looking early only means looking once more.
    else if (enabled_)
        result.msToExpiry = ticksToMs(seenMatch_ - published_);
    return result;
}

WatchdogState OsTimerBlock::state() {
    update();
    std::lock_guard<std::mutex> lock(mutex_);
    WatchdogState s;
    s.present = !words_.empty();
    s.hardware = L"OS timer match register 3";
    if (!s.present) return s;
    s.armed = enabled_;
    s.expired = expired_;
    s.intervalMs = ticksToMs(seenMatch_ - serviceCount_);
    s.sinceServiceMs = ticksToMs(published_ - serviceCount_);
    s.remainingMs = expired_ ? 0 : ticksToMs(seenMatch_ - published_);
    return s;
}

}  // namespace sim
