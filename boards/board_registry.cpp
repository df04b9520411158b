// The registry of board controllers: enumeration of "DSP1:", retirement of
// boards that stop answering, deletion of retired controllers, access by
// index, and the orderly end.
#include <algorithm>
#include <array>

#include "boards/analog_ctlr.h"
#include "boards/error_log.h"
#include "boards/ethernet_ctlr.h"
#include "boards/rf_ctlr.h"
#include "boards/t1_ctlr.h"
#include "boards/unknown_ctlr.h"
#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/text.h"

NoDestructor<host::CriticalSection> UsbCtlr::registryLock;
NoDestructor<std::vector<std::unique_ptr<T1Ctlr>>> UsbCtlr::T1Ctlrs;
NoDestructor<std::vector<std::unique_ptr<EthernetCtlr>>> UsbCtlr::EthernetCtlrs;
NoDestructor<std::vector<std::unique_ptr<RFCtlr>>> UsbCtlr::RFCtlrs;
NoDestructor<std::vector<std::unique_ptr<AnalogCtlr>>> UsbCtlr::AnalogCtlrs;
NoDestructor<std::vector<std::unique_ptr<UsbCtlr>>> UsbCtlr::DeadCtlrs;
bool UsbCtlr::enumActive = false;
DWORD UsbCtlr::lastEnumTick = 0;
NoDestructor<std::function<void()>> UsbCtlr::afterEnumCallback;
NoDestructor<std::mutex> UsbCtlr::afterEnumMutex;
std::atomic<int> UsbCtlr::ctlrCount{0};
std::atomic<int> UsbCtlr::deviceChangeThreads{0};
NoDestructor<std::mutex> UsbCtlr::deviceChangeMutex;
NoDestructor<std::condition_variable> UsbCtlr::deviceChangeEnded;

namespace {

// The registry hears of arrivals and removals from process start, as the
// application's window heard the system's device broadcasts.
[[maybe_unused]] const bool deviceChangeSourcesConnected = [] {
    UsbCtlr::ConnectDeviceChangeSources();
    return true;
}();

constexpr const wchar_t* kDriverName = L"DSP1:";
constexpr int kOpensPerScan = 9;

bool isOpenHandle(HANDLE h) {
    return h != NULL_HANDLE && h != INVALID_HANDLE_VALUE;
}

// Holds the locks of the links registered when a scan starts, so that no
// request reaches those boards until the scan is over. The set is known only
// at run time, which the thread-safety analysis cannot follow, so it skips
// these two.
class HeldLinks {
  public:
    void add(CommPolicy_USB* link) NO_THREAD_SAFETY_ANALYSIS {
        if (!link) return;
        link->lock();
        links_.push_back(link);
    }
    void releaseAll() NO_THREAD_SAFETY_ANALYSIS {
        for (CommPolicy_USB* link : links_) link->unlock();
        links_.clear();
    }
    ~HeldLinks() { releaseAll(); }

  private:
    std::vector<CommPolicy_USB*> links_;
};

}  // namespace

// The registry's internal steps; a friend of UsbCtlr.
struct Registry {
    template <class Kind>
    static void holdLinks(HeldLinks& held, std::vector<std::unique_ptr<Kind>>& array)
        REQUIRES(*UsbCtlr::registryLock) {
        for (const auto& ctlr : array) held.add(ctlr->link.get());
    }

    // Moves array[index] to DeadCtlrs, marked as being removed, and lets go
    // of its board: the next scan opens the board again and boots it as a
    // new controller, so neither a passing fault nor a client can keep a
    // board out of service. A session still bound to the retired controller
    // gets 11, as for a pulled board.
    template <class Kind>
    static void retire(std::vector<std::unique_ptr<Kind>>& array, std::size_t index,
                       const wchar_t* message) REQUIRES(*UsbCtlr::registryLock) {
        UsbCtlr* ctlr = array[index].get();
        std::unique_lock<CommPolicy> linkGuard;
        if (ctlr->link) linkGuard = std::unique_lock<CommPolicy>(*ctlr->link);
        ctlr->removing = true;
        if (ctlr->link) ctlr->link->releaseDevice();
        ctlr->logMsg(message);
        UsbCtlr::DeadCtlrs->push_back(std::move(array[index]));
        array.erase(array.begin() + static_cast<std::ptrdiff_t>(index));
        UsbCtlr::updateCtlrCount();
    }

    template <class Kind>
    static void retireDead(std::vector<std::unique_ptr<Kind>>& array)
        REQUIRES(*UsbCtlr::registryLock) {
        // A retired controller's successor moves into its index, which is
        // examined next.
        for (std::size_t i = 0; i < array.size();) {
            if (array[i]->isAlive()) {
                ++i;
                continue;
            }
            retire(array, i, L"This board is being removed!");
        }
    }

    template <class Kind>
    static void kill(std::vector<std::unique_ptr<Kind>>& array, UsbCtlr* ctlr,
                     const wchar_t* message) REQUIRES(*UsbCtlr::registryLock) {
        for (std::size_t i = 0; i < array.size(); ++i) {
            if (array[i].get() == ctlr) {
                retire(array, i, message);
                return;
            }
        }
    }

    template <class Kind>
    static Kind* at(std::vector<std::unique_ptr<Kind>>& array, int index)
        REQUIRES(*UsbCtlr::registryLock) {
        if (index < 0 || static_cast<std::size_t>(index) >= array.size()) return nullptr;
        return array[static_cast<std::size_t>(index)].get();
    }

    template <class Kind>
    static void destroyAll(std::vector<std::unique_ptr<Kind>>& array)
        REQUIRES(*UsbCtlr::registryLock) {
        for (auto& ctlr : array) ctlr.reset();
        array.clear();
        UsbCtlr::updateCtlrCount();
    }

    // The orderly end: every controller goes, except one that a client
    // session still holds. That one is only marked removing (its requests
    // answer 11 from now on) and parked among the dead, where it lasts until
    // the process ends, so the session never touches a deleted controller.
    template <class Kind>
    static void destroyAllUnheld(std::vector<std::unique_ptr<Kind>>& array)
        REQUIRES(*UsbCtlr::registryLock) {
        for (auto& ctlr : array) {
            if (ctlr->sessionPins.load() == 0) {
                ctlr.reset();
                continue;
            }
            std::unique_lock<CommPolicy> linkGuard;
            if (ctlr->link) linkGuard = std::unique_lock<CommPolicy>(*ctlr->link);
            ctlr->removing = true;
            linkGuard = {};
            UsbCtlr::DeadCtlrs->push_back(std::move(ctlr));
        }
        array.clear();
        UsbCtlr::updateCtlrCount();
    }

    static bool isUnheld(const std::unique_ptr<UsbCtlr>& ctlr) {
        return ctlr->sessionPins.load() == 0;
    }

    static void purgeDeadCtlrs() REQUIRES(*UsbCtlr::registryLock) {
        LogError(L"Purging DeadCtlrs ... ");
        // A client session may still hold a retired board's controller (it
        // answers its requests with 11); that one waits for a later purge.
        std::erase_if(*UsbCtlr::DeadCtlrs, isUnheld);
    }

    // Retired controllers go as soon as no session holds them, not only when
    // a scan starts after 60 quiet seconds: every accepted client scans, so
    // with clients coming and going the quiet minute never came and the dead
    // piled up. The purge line is written when there is something to delete.
    static void purgeUnheldDeadCtlrs() REQUIRES(*UsbCtlr::registryLock) {
        if (std::any_of(UsbCtlr::DeadCtlrs->begin(), UsbCtlr::DeadCtlrs->end(), isUnheld))
            purgeDeadCtlrs();
    }

    // The orderly end's work, with the registry held for good.
    static void shutdown() REQUIRES(*UsbCtlr::registryLock) {
        host::NKDbgPrintfW(L"UsbCtlr::Shutdown()!");
        LogError(
            host::wformat(L"UsbCtlr::Shutdown() entered, have %d ctlrs", UsbCtlr::GetCtlrCount()));
        destroyAllUnheld(*UsbCtlr::T1Ctlrs);
        destroyAllUnheld(*UsbCtlr::EthernetCtlrs);
        destroyAllUnheld(*UsbCtlr::RFCtlrs);
        destroyAllUnheld(*UsbCtlr::AnalogCtlrs);
        purgeDeadCtlrs();
        closeLogFileForShutdown();
    }

    static void checkDeadWood() REQUIRES(*UsbCtlr::registryLock) {
        purgeUnheldDeadCtlrs();
        retireDead(*UsbCtlr::T1Ctlrs);
        retireDead(*UsbCtlr::EthernetCtlrs);
        retireDead(*UsbCtlr::RFCtlrs);
        retireDead(*UsbCtlr::AnalogCtlrs);
    }

    // One slot of a scan: identify the board behind `handle`, then make,
    // boot and register its controller.
    static void adoptBoard(HANDLE& handle, bool assumeT1, bool bootIfAlive, bool flashAfterBoot)
        REQUIRES(*UsbCtlr::registryLock) {
        std::unique_ptr<UnknownCtlr> unknown;
        try {
            unknown = std::make_unique<UnknownCtlr>(handle, assumeT1);
            handle = NULL_HANDLE;  // the unknown controller's link owns it now
            unknown->createKindCtlr(bootIfAlive, flashAfterBoot);
        } catch (...) {
            LogError(L"EnumDevices:: Boot Fails");
        }
        // Closes the board's handle if no kind took the link.
        unknown.reset();
    }
};

void UsbCtlr::updateCtlrCount() {
    ctlrCount = static_cast<int>(T1Ctlrs->size() + EthernetCtlrs->size() + RFCtlrs->size() +
                                 AnalogCtlrs->size());
}

void UsbCtlr::EnumDevices(bool assumeT1, bool bootIfAlive, bool flashAfterBoot) {
    host::LockGuard registry(*registryLock);
    if (enumActive) {
        LogError(L"UsbCtlr::EnumDevices already active, leaving now...");
        return;
    }
    enumActive = true;
    struct ActiveFlag {
        ~ActiveFlag() REQUIRES(*registryLock) { enumActive = false; }
    } activeFlag;

    Registry::checkDeadWood();

    HeldLinks held;
    Registry::holdLinks(held, *T1Ctlrs);
    Registry::holdLinks(held, *AnalogCtlrs);
    Registry::holdLinks(held, *EthernetCtlrs);
    Registry::holdLinks(held, *RFCtlrs);

    // Each open reaches another board that no handle holds yet; a board that
    // is registered already is recognised by its serial number.
    std::array<HANDLE, kOpensPerScan> slots{};
    for (HANDLE& h : slots)
        h = host::CreateFileW(kDriverName, host::GENERIC_READ | host::GENERIC_WRITE, 0,
                              host::OPEN_EXISTING);

    for (int i = 0; i < kOpensPerScan; ++i) {
        HANDLE& handle = slots[static_cast<std::size_t>(i)];
        LogError(host::wformat(L"Handle[%i]=0x%x ", i, static_cast<unsigned>(handle)));
        if (isOpenHandle(handle))
            Registry::adoptBoard(handle, assumeT1, bootIfAlive, flashAfterBoot);
    }
    for (HANDLE handle : slots)
        if (isOpenHandle(handle)) host::CloseHandle(handle);

    held.releaseAll();
    LogError(host::wformat(L"UsbCtlr::EnumDevices() done, have %d ctlrs", GetCtlrCount()));
    lastEnumTick = host::GetTickCount();
}

int UsbCtlr::GetCtlrCount() {
    return ctlrCount.load();
}

UsbCtlr* UsbCtlr::GetCtlr(int index) {
    host::LockGuard registry(*registryLock);
    if (index < 0 || index >= GetCtlrCount()) return nullptr;
    std::size_t i = static_cast<std::size_t>(index);
    if (i < AnalogCtlrs->size()) return (*AnalogCtlrs)[i].get();
    i -= AnalogCtlrs->size();
    if (i < T1Ctlrs->size()) return (*T1Ctlrs)[i].get();
    i -= T1Ctlrs->size();
    if (i < RFCtlrs->size()) return (*RFCtlrs)[i].get();
    i -= RFCtlrs->size();
    if (i < EthernetCtlrs->size()) return (*EthernetCtlrs)[i].get();
    return nullptr;
}

T1Ctlr* UsbCtlr::GetT1CtlrForTest(int index) {
    host::LockGuard registry(*registryLock);
    return Registry::at(*T1Ctlrs, index);
}
EthernetCtlr* UsbCtlr::GetEthernetCtlrForTest(int index) {
    host::LockGuard registry(*registryLock);
    return Registry::at(*EthernetCtlrs, index);
}
RFCtlr* UsbCtlr::GetRFCtlrForTest(int index) {
    host::LockGuard registry(*registryLock);
    return Registry::at(*RFCtlrs, index);
}
AnalogCtlr* UsbCtlr::GetAnalogCtlrForTest(int index) {
    host::LockGuard registry(*registryLock);
    return Registry::at(*AnalogCtlrs, index);
}

int UsbCtlr::GetDeadCtlrCount() {
    host::LockGuard registry(*registryLock);
    return static_cast<int>(DeadCtlrs->size());
}

void UsbCtlr::PinSession(UsbCtlr* ctlr) {
    if (ctlr) ++ctlr->sessionPins;
}

void UsbCtlr::UnpinSession(UsbCtlr* ctlr) {
    if (!ctlr) return;
    // Only a retired controller can be left without a holder; a registered
    // one stays. A busy registry (a scan, or the orderly end, which keeps it
    // for good) is not waited for: the next scan's purge deletes it instead.
    if (!registryLock->try_lock()) {
        --ctlr->sessionPins;
        return;
    }
    if (--ctlr->sessionPins == 0 && ctlr->removing) Registry::purgeUnheldDeadCtlrs();
    registryLock->unlock();
}

void UsbCtlr::KillT1(UsbCtlr* ctlr) {
    host::LockGuard registry(*registryLock);
    Registry::kill(*T1Ctlrs, ctlr, L"UsbCtlr::KillT1 This board is being removed!");
}

void UsbCtlr::KillRF(UsbCtlr* ctlr) {
    host::LockGuard registry(*registryLock);
    Registry::kill(*RFCtlrs, ctlr, L"UsbCtlr::KillRF This board is being removed!");
}

void UsbCtlr::KillEnet(UsbCtlr* ctlr) {
    host::LockGuard registry(*registryLock);
    Registry::kill(*EthernetCtlrs, ctlr, L"UsbCtlr::KillEnet This board is being removed!");
}

void UsbCtlr::Shutdown() {
    // Never released: any later registry call from another thread waits
    // until the process ends. (Not analysed for that reason alone: the
    // analysis wants every lock a function takes given back.)
    registryLock->lock();
    Registry::shutdown();
}

void UsbCtlr::ResetRegistryForTest() {
    host::LockGuard registry(*registryLock);
    Registry::destroyAll(*T1Ctlrs);
    Registry::destroyAll(*EthernetCtlrs);
    Registry::destroyAll(*RFCtlrs);
    Registry::destroyAll(*AnalogCtlrs);
    for (auto& ctlr : *DeadCtlrs) ctlr.reset();
    DeadCtlrs->clear();
    enumActive = false;
    lastEnumTick = 0;
    std::lock_guard<std::mutex> guard(*afterEnumMutex);
    *afterEnumCallback = nullptr;
}
