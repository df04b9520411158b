#include "platform/devices.h"

#include <cwctype>
#include <map>
#include <mutex>

#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/stream_object.h"

namespace host {
namespace {

struct Drivers {
    std::mutex mutex;
    std::map<std::wstring, std::shared_ptr<StreamDriver>> byName;  // upper-cased
    DeviceChangeListener listener;
};

Drivers& drivers() {
    static NoDestructor<Drivers> d;
    return *d;
}

std::wstring upper(const std::wstring& s) {
    std::wstring u = s;
    for (auto& c : u) c = static_cast<wchar_t>(std::towupper(c));
    return u;
}

}  // namespace

bool isDeviceName(const std::wstring& name) {
    // Three letters, one digit, a colon: the original's device namespace.
    return name.size() == 5 && std::iswalpha(name[0]) && std::iswalpha(name[1]) &&
           std::iswalpha(name[2]) && std::iswdigit(name[3]) && name[4] == L':';
}

void registerStreamDriver(const std::wstring& name, std::shared_ptr<StreamDriver> driver) {
    auto& d = drivers();
    std::lock_guard<std::mutex> lock(d.mutex);
    if (driver)
        d.byName[upper(name)] = std::move(driver);
    else
        d.byName.erase(upper(name));
}

std::shared_ptr<StreamDriver> findStreamDriver(const std::wstring& name) {
    auto& d = drivers();
    std::lock_guard<std::mutex> lock(d.mutex);
    auto it = d.byName.find(upper(name));
    return it == d.byName.end() ? nullptr : it->second;
}

HANDLE openDevice(const std::wstring& name, DWORD access, DWORD shareMode) {
    auto driver = findStreamDriver(name);
    if (!driver) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    DWORD error = ERROR_GEN_FAILURE;
    auto instance = driver->open(access, shareMode, error);
    if (!instance) {
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(0);
    return addHandle(std::make_shared<DeviceObject>(std::move(instance)));
}

BOOL DeviceIoControl(HANDLE h, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                     DWORD* returned) {
    auto device = lookupAs<DeviceObject>(h);
    if (!device) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE_;
    }
    DWORD error = 0;
    if (!device->instance().ioControl(code, in, inSize, out, outSize, returned, error)) {
        SetLastError(error ? error : ERROR_GEN_FAILURE);
        return FALSE_;
    }
    return TRUE_;
}

void setDeviceChangeListener(DeviceChangeListener listener) {
    auto& d = drivers();
    std::lock_guard<std::mutex> lock(d.mutex);
    d.listener = std::move(listener);
}

void broadcastDeviceChange(DWORD event) {
    DeviceChangeListener listener;
    {
        auto& d = drivers();
        std::lock_guard<std::mutex> lock(d.mutex);
        listener = d.listener;
    }
    if (listener) listener(event);
}

}  // namespace host
