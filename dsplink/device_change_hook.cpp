#include "dsplink/device_change_hook.h"

#include <mutex>

namespace {

struct HookSlot {
    std::mutex mutex;
    DeviceChangeHook hook;
};

HookSlot& slot() {
    static HookSlot s;
    return s;
}

}  // namespace

void setDeviceChangeHook(DeviceChangeHook hook) {
    std::lock_guard<std::mutex> lock(slot().mutex);
    slot().hook = std::move(hook);
}

void reportDeviceChange(DWORD event) {
    DeviceChangeHook hook;
    {
        std::lock_guard<std::mutex> lock(slot().mutex);
        hook = slot().hook;
    }
    // Called outside the slot lock: the receiver may take the registry lock
    // and start threads that report again.
    if (hook) hook(event);
}
