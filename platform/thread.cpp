#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <system_error>
#include <thread>

#include "platform/last_error.h"
#include "platform/waitable.h"

namespace host {
namespace {

constexpr HANDLE kCurrentThreadPseudoHandle = ~HANDLE{0} - 1;

class ThreadObject final : public Waitable {
  public:
    ThreadObject() : Waitable(true, false) {}
    std::atomic<int> priority{THREAD_PRIORITY_NORMAL};
    std::atomic<int> rtPriority{251};  // where a normal thread sits on the real-time scale
    std::atomic<DWORD> exitCode{STILL_ACTIVE};
    std::atomic<bool> abandoned{false};
    std::atomic<pid_t> tid{0};
    pthread_t native{};
};

thread_local std::shared_ptr<ThreadObject> tlsSelf;

std::shared_ptr<ThreadObject> self() {
    if (!tlsSelf) {
        tlsSelf = std::make_shared<ThreadObject>();
        tlsSelf->tid = static_cast<pid_t>(::syscall(SYS_gettid));
        tlsSelf->native = pthread_self();
    }
    return tlsSelf;
}

std::shared_ptr<ThreadObject> threadOf(HANDLE h) {
    if (h == kCurrentThreadPseudoHandle) return self();
    auto t = lookupAs<ThreadObject>(h);
    if (!t) SetLastError(ERROR_INVALID_HANDLE);
    return t;
}

// Relative levels on Linux, best effort: the idle level gets SCHED_IDLE (the
// thread runs only when nothing else wants the CPU); the others keep the
// normal policy with a nice value around the process's own. Raising a
// thread above normal needs privileges and is otherwise only recorded.
void applyPriority(ThreadObject& t, int level) {
    pid_t tid = t.tid.load();
    if (tid == 0) return;
    sched_param param{};
    if (level >= THREAD_PRIORITY_IDLE) {
        pthread_setschedparam(t.native, SCHED_IDLE, &param);
        return;
    }
    int policy = 0;
    sched_param current{};
    if (pthread_getschedparam(t.native, &policy, &current) == 0 && policy != SCHED_OTHER)
        pthread_setschedparam(t.native, SCHED_OTHER, &param);
    setpriority(PRIO_PROCESS, static_cast<id_t>(tid), (level - THREAD_PRIORITY_NORMAL) * 2);
}

}  // namespace

HANDLE CreateThread(std::function<DWORD()> body, int priority, const std::string& name) {
    auto object = std::make_shared<ThreadObject>();
    object->priority = priority;
    HANDLE h = addHandle(object);
    // Wait until the thread has recorded its ids, so its priority can be set at once.
    auto started = std::make_shared<std::atomic<bool>>(false);
    try {
        std::thread thread([object, body = std::move(body), name, started]() mutable {
            tlsSelf = object;
            object->tid = static_cast<pid_t>(::syscall(SYS_gettid));
            object->native = pthread_self();
            if (!name.empty()) pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
            applyPriority(*object, object->priority.load());
            started->store(true);
            started->notify_one();
            DWORD code = 0;
            try {
                code = body();
            } catch (...) {
                code = 0xE06D7363;  // an exception escaped the thread body
            }
            if (!object->abandoned.load()) {
                object->exitCode = code;
                object->signal();
            }
            tlsSelf.reset();
        });
        thread.detach();
    } catch (const std::system_error&) {
        CloseHandle(h);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return NULL_HANDLE;
    }
    started->wait(false);
    return h;
}

BOOL SetThreadPriority(HANDLE thread, int level) {
    auto t = threadOf(thread);
    if (!t) return FALSE_;
    if (level < THREAD_PRIORITY_TIME_CRITICAL || level > THREAD_PRIORITY_IDLE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    t->priority = level;
    t->rtPriority = 248 + level;
    applyPriority(*t, level);
    return TRUE_;
}

int GetThreadPriority(HANDLE thread) {
    auto t = threadOf(thread);
    return t ? t->priority.load() : 0x7FFFFFFF;
}

BOOL CeSetThreadPriority(HANDLE thread, int level) {
    auto t = threadOf(thread);
    if (!t) return FALSE_;
    if (level < 0 || level > 255) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    t->rtPriority = level;
    if (level < 248) {
        // Real-time levels above every relative level: SCHED_FIFO when the
        // process may use it (0 is the highest level, 99 Linux's highest).
        sched_param param{};
        param.sched_priority = 99 - level * 98 / 247;
        // Without the right to real-time scheduling the thread still leaves
        // any idle class and runs as urgently as this process may ask.
        if (pthread_setschedparam(t->native, SCHED_FIFO, &param) != 0)
            applyPriority(*t, THREAD_PRIORITY_TIME_CRITICAL);
    } else {
        t->priority = level - 248;
        applyPriority(*t, level - 248);
    }
    return TRUE_;
}

int CeGetThreadPriority(HANDLE thread) {
    auto t = threadOf(thread);
    return t ? t->rtPriority.load() : 0x7FFFFFFF;
}

HANDLE GetCurrentThread() {
    return kCurrentThreadPseudoHandle;
}

DWORD GetCurrentThreadId() {
    // A plain thread_local: safe even from static destructors at exit.
    thread_local const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    return static_cast<DWORD>(tid);
}

BOOL GetExitCodeThread(HANDLE thread, DWORD* code) {
    auto t = threadOf(thread);
    if (!t) return FALSE_;
    if (code) *code = t->exitCode.load();
    return TRUE_;
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
    auto t = threadOf(thread);
    if (!t) return FALSE_;
    if (t->isSignalled()) return TRUE_;
    t->abandoned = true;
    t->exitCode = exitCode;
    t->signal();
    return TRUE_;
}

std::uint64_t currentThreadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000 +
           static_cast<std::uint64_t>(ts.tv_nsec / 1000000);
}

}  // namespace host
