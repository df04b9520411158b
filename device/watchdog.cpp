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

void WatchDog::resetSingletonForTests() {
    delete instance.exchange(nullptr);
}

WatchDog::WatchDog(DWORD intervalSeconds) {
    if (onKtx())
        armKtx(intervalSeconds);
    else
        armVbq(intervalSeconds);
}

WatchDog::~WatchDog() {
    UnmapPhysicalAddr(const_cast<DWORD*>(m_registers));
    if (m_library) host::FreeLibrary(m_library);
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

    m_library = host::LoadLibraryW(kVendorLibrary);
    if (!m_library) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog -- LoadLibrary FAILS! Aborting\n");
        return;
    }
    m_setTime = host::procAs<SetTimeEntry>(host::GetProcAddressW(m_library, kSetTimeEntry));
    if (!m_setTime) {
        host::NKDbgPrintfW(
            L"WatchDog::WatchDog -- GetProcAddress 'ADSSetWatchDogTime' FAILS! Aborting\n");
        return;
    }
    m_setTime(&m_interval);
    m_start = host::procAs<StartEntry>(host::GetProcAddressW(m_library, kStartEntry));
    if (!m_start) {
        host::NKDbgPrintfW(
            L"WatchDog::WatchDog -- GetProcAddress 'ADSStartWatchDog' FAILS! Aborting\n");
        return;
    }
    m_start();
    m_armed = true;
    host::NKDbgPrintfW(L"WatchDog::WatchDog -- ADSStartWatchDog done\n");
}

void WatchDog::armVbq(DWORD intervalSeconds) {
    host::NKDbgPrintfW(L"WatchDog::WatchDog -- VBQ!\n");
    m_registers =
        static_cast<volatile DWORD*>(MapPhysicalAddr(kTimerPhysicalBase, kTimerBlockSize));
    if (intervalSeconds > kVbqMaxSeconds) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog interval %d exceeds max of %d; set to max\r\n",
                           static_cast<int>(intervalSeconds), static_cast<int>(kVbqMaxSeconds));
        intervalSeconds = kVbqMaxSeconds;
    }
    m_interval = intervalSeconds * kTimerHz;
    if (!m_registers) return;  // MapPhysicalAddr has said why

    writeRegister(OSMR3, readRegister(OSCR) + m_interval);
    writeRegister(OSSR, 8);
    writeRegister(OIER, readRegister(OIER) | 8);
    writeRegister(OWER, 1);  // from here a match on register 3 resets the processor
    m_armed = true;
}

void WatchDog::service() {
    if (!m_armed) return;
    if (onKtx()) {
        m_service = host::procAs<ServiceEntry>(host::GetProcAddressW(m_library, kServiceEntry));
        if (m_service) m_service();
    } else if (m_registers) {
        writeRegister(OSMR3, readRegister(OSCR) + m_interval);
    }
}

void WatchDog::trigger() {
    if (onKtx()) {
        host::NKDbgPrintfW(L"WatchDog::WatchDog -- TRIGGER!!!\n");
        if (!m_armed) {
            host::NKDbgPrintfW(
                L"WatchDog::trigger -- no hardware watchdog armed; the unit is not reset!\n");
            return;
        }
        if (auto start = host::procAs<StartEntry>(host::GetProcAddressW(m_library, kStartEntry)))
            start();
        if (auto setTime =
                host::procAs<SetTimeEntry>(host::GetProcAddressW(m_library, kSetTimeEntry))) {
            DWORD oneMillisecond = 1;
            setTime(&oneMillisecond);
        }
        host::Sleep(10);
    } else if (m_registers) {
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
    return std::atomic_ref<DWORD>(const_cast<DWORD&>(m_registers[offset / sizeof(DWORD)]))
        .load(std::memory_order_relaxed);
}

void WatchDog::writeRegister(DWORD offset, DWORD value) {
    std::atomic_ref<DWORD>(const_cast<DWORD&>(m_registers[offset / sizeof(DWORD)]))
        .store(value, std::memory_order_relaxed);
}
