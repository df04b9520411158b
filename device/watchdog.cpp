#include "device/watchdog.h"

#include <atomic>

#include "device/physical_map.h"
#include "device/platform_id.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/modules.h"

namespace {

constexpr const wchar_t* kVendorLibrary = L"adsapidll.dll";
constexpr const char* kSetTimeEntry = "ADSSetWatchDogTime";
constexpr const char* kStartEntry = "ADSStartWatchDog";
constexpr const char* kServiceEntry = "ADSServiceWatchdog";

std::atomic<WatchDog*> instance{nullptr};

bool onKtx() {
    return getPlatform() == PlatformKtx;
}

}  // namespace

WatchDog* WatchDog::Singleton() {
    WatchDog* dog = instance.load(std::memory_order_acquire);
    if (!dog) {
        // Lives until the process ends: the hardware must stay owned.
        dog = new WatchDog(kDefaultIntervalSeconds);
        instance.store(dog, std::memory_order_release);
    }
    return dog;
}

void WatchDog::resetSingletonForTest() {
    delete instance.exchange(nullptr);
}

WatchDog::WatchDog(DWORD intervalSeconds) {
    if (onKtx())
        armKtx(intervalSeconds);
    else
        armVbq(intervalSeconds);
}

WatchDog::~WatchDog() {
    UnmapPhysicalAddr(const_cast<DWORD*>(registers_));
    if (library_) host::FreeLibrary(library_);
    host::NKDbgPrintfW(L"WatchDog::~WatchDog -- shouldn't get here!!!????\n");
}

void WatchDog::armKtx(DWORD intervalSeconds) {
    if (intervalSeconds > kKtxMaxSeconds) {
        host::NKDbgPrintfW(
            L"WatchDog::WatchDog -- KTX! interval of %u capped at IMX31 max of %u!!\n",
            intervalSeconds, kKtxMaxSeconds);
        intervalSeconds = kKtxMaxSeconds;
    }
    m_interval = intervalSeconds * 1000;
    host::NKDbgPrintfW(L"WatchDog::WatchDog -- KTX! m_interval=%u\n", m_interval);

    library_ = host::LoadLibraryW(kVendorLibrary);
    if (!library_) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog -- LoadLibrary FAILS! Aborting\n");
        return;
    }
    setTime_ = host::procAs<SetTimeEntry>(host::GetProcAddressW(library_, kSetTimeEntry));
    if (!setTime_) {
        host::NKDbgPrintfW(
            L"WatchDog::WatchDog -- GetProcAddress 'ADSSetWatchDogTime' FAILS! Aborting\n");
        return;
    }
    setTime_(&m_interval);
    start_ = host::procAs<StartEntry>(host::GetProcAddressW(library_, kStartEntry));
    if (!start_) {
        host::NKDbgPrintfW(
            L"WatchDog::WatchDog -- GetProcAddress 'ADSStartWatchDog' FAILS! Aborting\n");
        return;
    }
    start_();
    armed_ = true;
    host::NKDbgPrintfW(L"WatchDog::WatchDog -- ADSStartWatchDog done\n");
}

void WatchDog::armVbq(DWORD intervalSeconds) {
    host::NKDbgPrintfW(L"WatchDog::WatchDog -- VBQ!\n");
    registers_ = static_cast<volatile DWORD*>(MapPhysicalAddr(kTimerPhysicalBase, kTimerBlockSize));
    if (intervalSeconds > kVbqMaxSeconds) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog interval %d exceeds max of %d; set to max\r\n",
                           static_cast<int>(intervalSeconds), static_cast<int>(kVbqMaxSeconds));
        intervalSeconds = kVbqMaxSeconds;
    }
    m_interval = intervalSeconds * kTimerHz;
    if (!registers_) return;  // MapPhysicalAddr has said why

    writeRegister(OSMR3, readRegister(OSCR) + m_interval);
    writeRegister(OSSR, 8);
    writeRegister(OIER, readRegister(OIER) | 8);
    writeRegister(OWER, 1);  // from here a match on register 3 resets the processor
    armed_ = true;
}

void WatchDog::service() {
    if (!armed_) return;
    if (onKtx()) {
        service_ = host::procAs<ServiceEntry>(host::GetProcAddressW(library_, kServiceEntry));
        if (service_) service_();
    } else if (registers_) {
        writeRegister(OSMR3, readRegister(OSCR) + m_interval);
    }
}

void WatchDog::trigger() {
    if (onKtx()) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog -- TRIGGER!!!\n");
        if (!armed_) {
            host::NKDbgPrintfW(
                L"WatchDog::trigger -- no hardware watchdog armed; the unit is not reset!\n");
            return;
        }
        if (auto start = host::procAs<StartEntry>(host::GetProcAddressW(library_, kStartEntry)))
            start();
        if (auto setTime =
                host::procAs<SetTimeEntry>(host::GetProcAddressW(library_, kSetTimeEntry))) {
            DWORD oneMillisecond = 1;
            setTime(&oneMillisecond);
        }
        host::Sleep(10);
    } else if (registers_) {
        writeRegister(OSMR3, readRegister(OSCR) + kTriggerTicks);
    } else {
        host::NKDbgPrintfW(
            L"WatchDog::trigger -- no hardware watchdog armed; the unit is not reset!\n");
    }
}

// The registers are plain 32-bit loads and stores. On the host the simulated
// timer is another thread, so the words are accessed atomically (relaxed),
// which compiles to the same single loads and stores on the target.
DWORD WatchDog::readRegister(DWORD offset) const {
    return std::atomic_ref<DWORD>(const_cast<DWORD&>(registers_[offset / sizeof(DWORD)]))
        .load(std::memory_order_relaxed);
}

void WatchDog::writeRegister(DWORD offset, DWORD value) {
    std::atomic_ref<DWORD>(const_cast<DWORD&>(registers_[offset / sizeof(DWORD)]))
        .store(value, std::memory_order_relaxed);
}
