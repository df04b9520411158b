#include "dsplink/comm_policy.h"

#include "boards/error_log.h"

CommPolicy::~CommPolicy() {
    // Taking the lock lets an exchange that is still running finish first. A
    // std::recursive_mutex must not be destroyed while held, so it is released
    // again at once.
    mutex.lock();
    mutex.unlock();
}

void CommPolicy::lock() {
    mutex.lock();
    if (depth_++ == 0) holder_.store(std::this_thread::get_id());
}

void CommPolicy::unlock() {
    // Only the holder touches depth_, so it is read after the holder check.
    if (holder_.load() != std::this_thread::get_id()) {
        LogError(L"Unlock mutex ... FAILURE!");
        return;
    }
    if (--depth_ == 0) holder_.store(std::thread::id{});
    mutex.unlock();
}
