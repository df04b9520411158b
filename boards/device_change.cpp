// Device arrival and removal: every event starts a short-lived thread that
// runs a full enumeration, so the board that came is registered and the one
// that went is retired.
#include "boards/error_log.h"
#include "boards/usb_ctlr.h"
#include "dsplink/device_change_hook.h"
#include "platform/devices.h"
#include "platform/handles.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

constexpr int kExitNoDeviceChangeThread = -46;

}  // namespace

BOOL UsbCtlr::OnDeviceChange(DWORD event, DWORD data, std::function<void()> afterEnum) {
    (void)data;
    if (event != DBT_DEVICEARRIVAL && event != DBT_DEVICEREMOVECOMPLETE) return TRUE_;
    if (afterEnum) {
        std::lock_guard<std::mutex> guard(*afterEnumMutex);
        *afterEnumCallback = std::move(afterEnum);
    }
    // The thread runs on by itself; its handle is not needed here.
    if (HANDLE thread = StartDeviceChangeThread(); thread != NULL_HANDLE) host::CloseHandle(thread);
    return TRUE_;
}

HANDLE UsbCtlr::StartDeviceChangeThread() {
    ++deviceChangeThreads;
    HANDLE thread = host::CreateThread(
        []() -> DWORD {
            DeviceChangeThreadCallback();
            {
                std::lock_guard<std::mutex> guard(*deviceChangeMutex);
                --deviceChangeThreads;
            }
            deviceChangeEnded->notify_all();
            return 0;
        },
        host::THREAD_PRIORITY_HIGHEST, "DeviceChange");
    if (thread == NULL_HANDLE) {
        {
            std::lock_guard<std::mutex> guard(*deviceChangeMutex);
            --deviceChangeThreads;
        }
        deviceChangeEnded->notify_all();
        LogError(
            host::wformat(L"Unable to create DeviceChangeThread! (%s)", FormatError().c_str()));
        host::ExitProcess(kExitNoDeviceChangeThread);
    }
    return thread;
}

void UsbCtlr::DeviceChangeThreadCallback() {
    host::WSADATA socketData{};
    host::WSAStartup(0x0202, &socketData);
    host::LockGuard registry(*registryLock);
    EnumDevices(false, true, false);
    std::function<void()> callback;
    {
        std::lock_guard<std::mutex> guard(*afterEnumMutex);
        callback = *afterEnumCallback;
    }
    if (callback) callback();
}

void UsbCtlr::ConnectDeviceChangeSources() {
    host::setDeviceChangeListener([](DWORD event) { OnDeviceChange(event, 0, nullptr); });
    setDeviceChangeHook([](DWORD event) { OnDeviceChange(event, 0, nullptr); });
}

void UsbCtlr::WaitForDeviceChangeThreads() {
    std::unique_lock<std::mutex> guard(*deviceChangeMutex);
    deviceChangeEnded->wait(guard, [] { return deviceChangeThreads.load() == 0; });
}
