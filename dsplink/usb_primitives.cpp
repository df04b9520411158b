// The link object's lifetime and its three driver primitives: one
// DeviceIoControl each, retried with a growing pause, and the recovery step
// that gives the board up.
#include <algorithm>
#include <cstring>

#include "boards/error_log.h"
#include "dsplink/comm_policy_usb.h"
#include "dsplink/device_change_hook.h"
#include "platform/clock.h"
#include "platform/devices.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/text.h"

using namespace dsplink;

namespace {

constexpr int kMaxAttempts = 100;
constexpr DWORD kFirstPauseMs = 50;
constexpr DWORD kPauseStepMs = 50;
constexpr DWORD kRemovalReportDelayMs = 1000;

// Codes after which the driver will not recover by itself.
bool isFatalDriverError(DWORD code) {
    return code == ERROR_INVALID_HANDLE || code == ERROR_DEVICE_NOT_CONNECTED ||
           code == ERROR_INVALID_HANDLE_STATE;
}

const wchar_t* primitiveName(int which) {
    static const wchar_t* const names[] = {L"primitiveGetStatus", L"primitiveSendData",
                                           L"primitiveGetData"};
    return names[which];
}

}  // namespace

CommPolicy_USB::CommPolicy_USB(LinkOwner* owner, HANDLE handle)
    : CommPolicy(owner),
      txBuf(kFrameBufferSize, 0),
      rxBuf(kFrameBufferSize, 0),
      handle(handle),
      ctrlIn(kCtrlCopyBufferSize, 0),
      ctrlOut(kCtrlCopyBufferSize, 0) {}

CommPolicy_USB::~CommPolicy_USB() {
    // Let an exchange in progress end before the handle and buffers go.
    host::LockGuard guard(*this);
    const HANDLE h = handle.exchange(NULL_HANDLE);
    if (h != NULL_HANDLE) {
        LogError(host::wformat(L"CommPolicy_USB::~CommPolicy_USB() about to close handle #%x\n",
                               static_cast<unsigned>(h)));
        if (!host::CloseHandle(h)) LogError(FormatError());
    } else {
        LogError(L"CommPolicy_USB::~CommPolicy_USB() skipping NULL handle\n");
    }
}

bool CommPolicy_USB::isOpen() {
    const HANDLE h = handle.load();
    return h != NULL_HANDLE && h != INVALID_HANDLE_VALUE;
}

dspStatus CommPolicy_USB::primitiveGetStatus(BYTE* buffer, DWORD* size) {
    if (!isOpen()) return dspNoUsbComm;
    return retryIoControl(Primitive::GetStatus, buffer, size ? *size : 0);
}

dspStatus CommPolicy_USB::primitiveSendData(const BYTE* message, int size) {
    if (!isOpen()) return dspNoUsbComm;
    if (size < 0 || size > wire::kMaxFrame) {
        LogError(host::wformat(L"primitiveSendData size wrong, %d", size));
        return dspUsbCommFailed;
    }
    // The driver only reads the outgoing message, although the call's
    // signature takes it as a mutable output buffer.
    return retryIoControl(Primitive::SendData, const_cast<BYTE*>(message),
                          static_cast<DWORD>(size));
}

dspStatus CommPolicy_USB::primitiveGetData(BYTE* buffer, int* size) {
    if (!isOpen()) return dspNoUsbComm;
    const int wanted = size ? *size : 0;
    if (wanted < 0 || wanted > wire::kMaxFrame) {
        LogError(host::wformat(L"primitiveGetData size wrong, %d", wanted));
        return dspUsbCommFailed;
    }
    return retryIoControl(Primitive::GetData, buffer, static_cast<DWORD>(wanted));
}

dspStatus CommPolicy_USB::retryIoControl(Primitive which, BYTE* buffer, DWORD size) {
    const int index = static_cast<int>(which);
    const DWORD copyBytes = std::min<DWORD>(size, kCtrlCopyBytes);
    lastError = 0;
    DWORD pause = kFirstPauseMs;
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        if (isFatalDriverError(lastError)) break;
        BOOL ok = FALSE_;
        switch (which) {
            case Primitive::GetStatus:
                ok = host::DeviceIoControl(handle, wire::IOCTL_DSP_GET_STATUS, buffer, size,
                                           nullptr, 0, nullptr);
                break;
            case Primitive::SendData: {
                if (copyBytes > 0) std::memcpy(&ctrlOut[1], buffer, copyBytes);
                DWORD returned = 0;  // the byte count is not consulted
                ok = host::DeviceIoControl(handle, wire::IOCTL_DSP_SEND_DATA, nullptr, 0, buffer,
                                           size, &returned);
                break;
            }
            case Primitive::GetData:
                ok = host::DeviceIoControl(handle, wire::IOCTL_DSP_GET_DATA, buffer, size, nullptr,
                                           0, nullptr);
                if (ok && copyBytes > 0) std::memcpy(&ctrlIn[1], buffer, copyBytes);
                break;
        }
        if (ok) return dspOk;
        lastError = host::GetLastError();
        LogError(host::wformat(L"IOFailure (%d) encountered in CommPolicy_USB::%s ...retrying",
                               static_cast<int>(lastError), primitiveName(index)));
        host::Sleep(pause);
        pause += kPauseStepMs;
    }
    LogError(host::wformat(L"IOFailure encountered in CommPolicy_USB::%s ...FAILURE!",
                           primitiveName(index)));
    return ioFailure();
}

void CommPolicy_USB::releaseDevice() {
    // Only one caller gets to close the handle.
    const HANDLE h = handle.exchange(NULL_HANDLE);
    if (h != NULL_HANDLE) host::CloseHandle(h);
}

dspStatus CommPolicy_USB::ioFailure() {
    releaseDevice();
    const bool removing = owner && owner->isRemoving();
    if (!removing) {
        // The log writes since the failed call may have reset the thread's
        // last error; the driver's code is the one worth reporting.
        if (lastError != 0) host::SetLastError(lastError);
        logToOwner(L"CommPolicy_USB::ioFailure() -- Handle set to NULL -- getLastError=" +
                   FormatError());
        LogError(L"Spawning OnDeviceChange thread in 1 second...");
        host::Sleep(kRemovalReportDelayMs);
        reportDeviceChange(DBT_DEVICEREMOVECOMPLETE);
    }
    return dspUsbCommFailed;
}

void CommPolicy_USB::logToOwner(const std::wstring& msg) {
    if (owner) owner->logMsg(msg);
}
