#include "dsplink/comm_policy.h"

#include <cassert>

#include "boards/error_log.h"

CommPolicy::~CommPolicy() {
    // Taking the lock lets an exchange that is still running finish first. A
    // std::recursive_mutex must not be destroyed while held, so it is released
    // again at once. For the same reason no thread deletes a link it holds:
    // the recursive lock below would succeed, and the lock end held.
    assert(holder_.load() != std::this_thread::get_id());
    mutex.lock();
    mutex.unlock();
}

// The lock operations themselves are not analysed: they are what the
// analysis takes as given (the link is the lock, `mutex` its mechanism).
void CommPolicy::lock() NO_THREAD_SAFETY_ANALYSIS {
    mutex.lock();
    if (depth_++ == 0) holder_.store(std::this_thread::get_id());
}

void CommPolicy::unlock() NO_THREAD_SAFETY_ANALYSIS {
    // Only the holder touches depth_, so it is read after the holder check.
    if (holder_.load() != std::this_thread::get_id()) {
        LogError(L"Unlock mutex ... FAILURE!");
        return;
    }
    if (--depth_ == 0) holder_.store(std::thread::id{});
    mutex.unlock();
}
