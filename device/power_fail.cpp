#include "device/power_fail.h"

#include <mutex>

#include "boards/error_log.h"
#include "device/watchdog.h"
#include "platform/clock.h"
#include "platform/coredll.h"
#include "platform/debug_out.h"
#include "platform/devices.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/modules.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

struct PowerFailState {
    std::mutex mutex;
    HANDLE driver = INVALID_HANDLE_VALUE;
    HANDLE event = NULL_HANDLE;
    // Set by the first power-fail interrupt; written by the power-fail thread only.
    std::atomic<bool> shutDown{false};
};

PowerFailState& state() {
    static PowerFailState s;
    return s;
}

}  // namespace

HANDLE getPowerFailEvent() {
    PowerFailState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.event != NULL_HANDLE) return s.event;

    if (s.driver == INVALID_HANDLE_VALUE) {
        s.driver = host::CreateFileW(L"DIO1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                                     host::OPEN_EXISTING, host::FILE_ATTRIBUTE_NORMAL);
        if (s.driver == INVALID_HANDLE_VALUE) return NULL_HANDLE;
        // Every line but 17 stays quiet; 17 reports its rising edge. The
        // answers are the driver's business: only the event matters here.
        DWORD mask = ~kPowerFailLineMask;
        host::DeviceIoControl(s.driver, kDioMaskRequest, &mask, sizeof mask, nullptr, 0, nullptr);
        DWORD arm[2] = {kPowerFailLineMask, kPowerFailEdges};
        host::DeviceIoControl(s.driver, kDioArmRequest, arm, sizeof arm, nullptr, 0, nullptr);
    }
    const std::wstring name = host::wformat(kPowerFailEventFormat, kPowerFailLine);
    s.event = host::CreateEventW(false, false, name.c_str());
    return s.event;
}

bool powerFailShutDown() {
    return state().shutDown.load();
}

void resetPowerFailForTest() {
    PowerFailState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.event != NULL_HANDLE) host::CloseHandle(s.event);
    if (s.driver != INVALID_HANDLE_VALUE) host::CloseHandle(s.driver);
    s.event = NULL_HANDLE;
    s.driver = INVALID_HANDLE_VALUE;
    s.shutDown = false;
}

PowerFailHandler::PowerFailHandler(std::function<void()> stopController)
    : stopController_(std::move(stopController)) {}

DWORD PowerFailHandler::PowerFailThread() {
    const HANDLE event = getPowerFailEvent();
    if (event == NULL_HANDLE) {
        LogError(L"Unable to create power fail event!!!");
        return 0;
    }
    host::CeSetThreadPriority(host::GetCurrentThread(), kPowerFailPriority);
    host::NKDbgPrintfW(L"%u: CTovelDlg::PowerFailThread - Enter Loop...\n", host::GetTickCount());
    while (!stopping_.load()) {
        const DWORD result = host::WaitForSingleObject(event, kPowerFailWaitMs);
        if (stopping_.load()) break;
        if (result == WAIT_OBJECT_0)
            onPowerFail();
        else if (result != WAIT_TIMEOUT)
            failedWait(result);
    }
    return 0;
}

void PowerFailHandler::onPowerFail() {
    PowerFailState& s = state();
    if (s.shutDown.load()) {
        host::NKDbgPrintfW(L"%u: Power Fail Interrupt! Ignored, already shut down.\n",
                           host::GetTickCount());
        return;
    }
    s.shutDown = true;
    host::NKDbgPrintfW(L"%u: Power Fail Interrupt! Shuting down...\n", host::GetTickCount());
    if (stopController_) stopController_();

    host::NKDbgPrintfW(L"%u: Calling FSPwrFcn!\n", host::GetTickCount());
    // Without the core library nothing more happens here: the unserviced
    // watchdog resets the unit later.
    const HANDLE core = host::LoadLibraryW(host::kCoreLibraryName);
    if (core == NULL_HANDLE) return;
    const auto quiesce = host::procAs<host::FileSystemPowerFn>(
        host::GetProcAddressW(core, host::kFileSystemPowerEntry));
    if (quiesce) quiesce(host::FSNOTIFY_POWER_OFF);
    host::NKDbgPrintfW(L"%u: File System Quiesced.\n", host::GetTickCount());

    host::Sleep(kQuiescePauseMs);
    WatchDog::Singleton()->trigger();
}

void PowerFailHandler::failedWait(DWORD result) {
    host::NKDbgPrintfW(L"%u: Power Fail Interrupt - WaitForSingleObject returns %u...\n",
                       host::GetTickCount(), result);
    // A handle that has become unusable fails every wait at once; pausing as
    // long as a wait would have lasted keeps this real-time thread from
    // spinning and starving the rest of the unit.
    std::unique_lock<std::mutex> lock(pauseMutex_);
    host::clock().waitFor(pauseWake_, lock, kPowerFailWaitMs, [this] { return stopping_.load(); });
}

void PowerFailHandler::stop() {
    {
        std::lock_guard<std::mutex> lock(pauseMutex_);
        stopping_ = true;
    }
    pauseWake_.notify_all();
    PowerFailState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.event != NULL_HANDLE) host::SetEvent(s.event);
}

void PowerFailHandler::clearWake() {
    PowerFailState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.event != NULL_HANDLE) host::ResetEvent(s.event);
}
