#pragma once
// Critical sections and events.
#include <mutex>
#include <string>

#include "platform/thread_annotations.h"
#include "platform/win_types.h"

namespace host {

// A recursive lock, as a Windows CE critical section: the owning thread may
// enter again. Hold it with LockGuard, so that the thread-safety analysis
// sees which fields it guards.
class CAPABILITY("mutex") CriticalSection {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

  private:
    std::recursive_mutex mutex_;
};

// Holds a lock (a CriticalSection, a DSP link: anything with lock/unlock)
// for a scope, as std::lock_guard does; unlike the standard guards it is
// annotated, so guarded fields touched in the scope are checked.
template <class Lock>
class SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Lock& lock) ACQUIRE(lock) : lock_(lock) { lock.lock(); }
    ~LockGuard() RELEASE() { lock_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Lock& lock_;
};

// Events. A named event is shared by every creator of the same name (the
// second creator gets ERROR_ALREADY_EXISTS as last error and a handle to the
// same object). Each event carries a 32-bit event-data word.
HANDLE CreateEventW(bool manualReset, bool initialState, const wchar_t* name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
BOOL SetEventData(HANDLE event, DWORD data);
DWORD GetEventData(HANDLE event);

// Waits for an event or a thread (signalled when it ends) on the clock in
// force. Answers WAIT_OBJECT_0, WAIT_TIMEOUT (258) or WAIT_FAILED with the
// last error set (ERROR_INVALID_HANDLE for a handle that is not waitable).
DWORD WaitForSingleObject(HANDLE object, DWORD timeoutMs);

}  // namespace host
