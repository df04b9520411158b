#pragma once
// The handle table: every kernel object (file, device, event, thread, module)
// is reached through a HANDLE. Objects are shared, so an object stays alive
// while any call that looked it up is still using it, even if the handle is
// closed meanwhile.
#include <memory>

#include "platform/win_types.h"

namespace host {

class KernelObject {
  public:
    virtual ~KernelObject() = default;
    // Called once when the last handle to the object is closed.
    virtual void onClose() {}
};

HANDLE addHandle(std::shared_ptr<KernelObject> object);
std::shared_ptr<KernelObject> lookupHandle(HANDLE h);

template <class T>
std::shared_ptr<T> lookupAs(HANDLE h) {
    return std::dynamic_pointer_cast<T>(lookupHandle(h));
}

// Closes a handle of any kind. FALSE with ERROR_INVALID_HANDLE for an unknown one.
BOOL CloseHandle(HANDLE h);

// Number of open handles (for leak checks in tests).
std::size_t openHandleCountForTest();

}  // namespace host
