#include "app/window_messages.h"

#include <algorithm>
#include <map>

#include "platform/clock.h"

namespace {

constexpr UINT kFirstRegisteredMessage = 0xC000;

struct Registry {
    std::mutex mutex;
    std::map<std::wstring, UINT> byName;
};

Registry& registry() {
    static Registry r;
    return r;
}

}  // namespace

UINT registerWindowMessage(const std::wstring& name) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto [it, added] =
        r.byName.try_emplace(name, kFirstRegisteredMessage + static_cast<UINT>(r.byName.size()));
    (void)added;
    return it->second;
}

void PostedMessages::post(UINT message) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (std::find(queue_.begin(), queue_.end(), message) != queue_.end()) return;
        queue_.push_back(message);
    }
    arrived_.notify_all();
}

std::optional<UINT> PostedMessages::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.empty()) return std::nullopt;
    const UINT message = queue_.front();
    queue_.pop_front();
    return message;
}

bool PostedMessages::waitFor(DWORD timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return host::clock().waitFor(arrived_, lock, timeoutMs, [this] { return !queue_.empty(); });
}

std::size_t PostedMessages::pending() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
}
