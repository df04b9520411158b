#pragma once
// Stream drivers ("DSP1:", "DIO1:", "SPI1:" .. "SPI4:") and device-change
// broadcasts. A backend (the simulator, or a real Linux driver) registers a
// StreamDriver under a device name; CreateFileW on that name opens it and
// DeviceIoControl/ReadFile/WriteFile reach the open instance.
#include <functional>
#include <memory>
#include <string>

#include "platform/win_types.h"

namespace host {

// One open instance of a device. Each call answers success, or false with an
// error code in `error` (it becomes the caller's last error).
class DeviceInstance {
  public:
    virtual ~DeviceInstance() = default;
    virtual bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                           DWORD* returned, DWORD& error) = 0;
    virtual bool read(void* buffer, DWORD size, DWORD* read, DWORD& error) {
        (void)buffer, (void)size, (void)read;
        error = ERROR_NOT_SUPPORTED;
        return false;
    }
    virtual bool write(const void* buffer, DWORD size, DWORD* written, DWORD& error) {
        (void)buffer, (void)size, (void)written;
        error = ERROR_NOT_SUPPORTED;
        return false;
    }
    // The handle was closed.
    virtual void close() {}
};

class StreamDriver {
  public:
    virtual ~StreamDriver() = default;
    // Opens an instance, or answers null with `error` set.
    virtual std::shared_ptr<DeviceInstance> open(DWORD access, DWORD shareMode, DWORD& error) = 0;
};

// Registers (or with null, removes) the driver for a device name such as
// L"DSP1:". Names match case-insensitively.
void registerStreamDriver(const std::wstring& name, std::shared_ptr<StreamDriver> driver);
std::shared_ptr<StreamDriver> findStreamDriver(const std::wstring& name);

// DeviceIoControl on a handle from CreateFileW. Nonzero on success; on failure
// the last error holds the driver's code (ERROR_INVALID_HANDLE for a handle
// that is not a device).
BOOL DeviceIoControl(HANDLE h, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                     DWORD* returned);

// Device arrival and removal: the window system's device broadcast. The
// listener runs in the thread that raised the event.
using DeviceChangeListener = std::function<void(DWORD event)>;
void setDeviceChangeListener(DeviceChangeListener listener);
void broadcastDeviceChange(DWORD event);

}  // namespace host
