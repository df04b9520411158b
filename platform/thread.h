#pragma once
// Threads with the original's relative priority levels 0 (time-critical) to
// 7 (idle) and real-time levels 0..255.
#include <functional>
#include <string>

#include "platform/win_types.h"

namespace host {

inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 0;
inline constexpr int THREAD_PRIORITY_HIGHEST = 1;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 2;
inline constexpr int THREAD_PRIORITY_NORMAL = 3;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = 4;
inline constexpr int THREAD_PRIORITY_LOWEST = 5;
inline constexpr int THREAD_PRIORITY_ABOVE_IDLE = 6;
inline constexpr int THREAD_PRIORITY_IDLE = 7;

// Starts `body` in a new thread at a relative priority: the idle level is
// Linux's idle class, the others the normal class with two nice steps per
// level around the process's own. The thread starts from the process's own
// scheduling whichever thread asks, so it never inherits its creator's. A
// priority the process may not have (more urgent than its limit, or out of
// the idle class without privileges) gives the best it may have, and the
// debug output says so once per thread name and priority. The handle is
// signalled when the body returns; the thread's exit code is what the body
// returns. NULL with the last error set if the thread cannot be started.
HANDLE CreateThread(std::function<DWORD()> body, int priority = THREAD_PRIORITY_NORMAL,
                    const std::string& name = {});

BOOL SetThreadPriority(HANDLE thread, int level);
int GetThreadPriority(HANDLE thread);
// Real-time level 0 (highest) .. 255 of the original's scale. Linux gets
// SCHED_FIFO when the process may use it, otherwise the normal class at the
// most urgent nice value the process may use (said once on the debug output).
BOOL CeSetThreadPriority(HANDLE thread, int level);
int CeGetThreadPriority(HANDLE thread);

// The calling thread's own handle (a pseudo handle valid in that thread only)
// and id.
HANDLE GetCurrentThread();
DWORD GetCurrentThreadId();
BOOL GetExitCodeThread(HANDLE thread, DWORD* code);
inline constexpr DWORD STILL_ACTIVE = 259;

// Forced end of a thread that must be abandoned. Linux cannot stop a thread
// safely from outside, so the thread is abandoned instead: its handle is
// signalled at once with `exitCode`, the thread is detached and runs on
// until its current blocking call returns; whatever it still touches must be
// kept alive by shared ownership (the thread's body owns a reference). Its
// body's return value is ignored after that.
BOOL TerminateThread(HANDLE thread, DWORD exitCode);

}  // namespace host
