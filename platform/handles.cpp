#include "platform/handles.h"

#include <mutex>
#include <unordered_map>

#include "platform/last_error.h"
#include "platform/no_destructor.h"

namespace host {
namespace {

struct HandleTable {
    std::mutex mutex;
    std::unordered_map<HANDLE, std::shared_ptr<KernelObject>> objects;
    HANDLE next = 0x10;
};

HandleTable& table() {
    static NoDestructor<HandleTable> t;
    return *t;
}

}  // namespace

HANDLE addHandle(std::shared_ptr<KernelObject> object) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    // Slot numbers grow by 4 like the original's handles and skip the
    // reserved values; they wrap long before reaching 32 bits.
    HANDLE h;
    do {
        h = t.next;
        t.next = t.next >= 0x7FFFFFF0 ? 0x10 : t.next + 4;
    } while (t.objects.count(h));
    t.objects.emplace(h, std::move(object));
    return h;
}

std::shared_ptr<KernelObject> lookupHandle(HANDLE h) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.objects.find(h);
    return it == t.objects.end() ? nullptr : it->second;
}

BOOL CloseHandle(HANDLE h) {
    std::shared_ptr<KernelObject> object;
    {
        auto& t = table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.objects.find(h);
        if (it == t.objects.end()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE_;
        }
        object = std::move(it->second);
        t.objects.erase(it);
    }
    object->onClose();
    return TRUE_;
}

std::size_t openHandleCountForTest() {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.objects.size();
}

}  // namespace host
