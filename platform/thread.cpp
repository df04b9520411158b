#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "platform/debug_out.h"
#include "platform/last_error.h"
#include "platform/no_destructor.h"
#include "platform/scheduling.h"
#include "platform/text.h"
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

// Starts every thread from one thread of its own that keeps the process's
// scheduling as it was at start. A Linux thread inherits its creator's
// scheduling, and an unprivileged one may neither leave the idle class nor
// become more urgent than it is; started from here, each thread begins at the
// process's own and moves only to its own level, whichever thread asked.
class ThreadStarter {
  public:
    ThreadStarter() {
        try {
            std::thread([this] { serve(); }).detach();
            running_ = true;
        } catch (const std::system_error&) {
            // No starter: threads start from their creators, as Linux does.
        }
    }

    // Runs `launch` on the starter's thread and waits for it.
    void run(const std::function<void()>& launch) {
        if (!running_) {
            launch();
            return;
        }
        std::lock_guard<std::mutex> one(callers_);
        std::unique_lock<std::mutex> lock(mutex_);
        job_ = &launch;
        done_ = false;
        cv_.notify_all();
        cv_.wait(lock, [this] { return done_; });
    }

  private:
    void serve() {
        pthread_setname_np(pthread_self(), "thread-starter");
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return job_ != nullptr; });
            const std::function<void()>* job = job_;
            job_ = nullptr;
            lock.unlock();
            (*job)();
            lock.lock();
            done_ = true;
            cv_.notify_all();
        }
    }

    bool running_ = false;
    std::mutex callers_;
    std::mutex mutex_;
    std::condition_variable cv_;
    const std::function<void()>* job_ = nullptr;
    bool done_ = false;
};

// The process's nice value at start: relative levels sit around it.
int baseNice() {
    static const int nice = [] {
        errno = 0;
        const int value = getpriority(PRIO_PROCESS, 0);
        return errno == 0 ? value : 0;
    }();
    return nice;
}

ThreadStarter& starter() {
    static NoDestructor<ThreadStarter> instance;
    return *instance;
}

// Made while the process starts, on its first thread, so that the starter
// has the process's own scheduling.
[[maybe_unused]] const bool kStarterReady = (baseNice(), starter(), true);

SchedulingCalls kernelCalls(const ThreadObject& t) {
    const pthread_t native = t.native;
    const auto tid = static_cast<id_t>(t.tid.load());
    SchedulingCalls calls;
    calls.setClass = [native](const Scheduling& s) {
        sched_param param{};
        int policy = SCHED_OTHER;
        if (s.cls == SchedClass::Idle) policy = SCHED_IDLE;
        if (s.cls == SchedClass::RealTime) {
            policy = SCHED_FIFO;
            param.sched_priority = s.rtPriority;
        }
        return pthread_setschedparam(native, policy, &param) == 0;
    };
    calls.setNice = [tid](int nice) { return setpriority(PRIO_PROCESS, tid, nice) == 0; };
    calls.nice = [tid] {
        errno = 0;
        const int nice = getpriority(PRIO_PROCESS, tid);
        return errno == 0 ? nice : 0;
    };
    calls.lowestNiceAllowed = [] {
        // The kernel lets a thread lower its nice value to 20 - RLIMIT_NICE.
        rlimit limit{};
        if (getrlimit(RLIMIT_NICE, &limit) != 0) return 0;
        if (limit.rlim_cur == RLIM_INFINITY) return -20;
        return std::max(-20, 20 - static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 40)));
    };
    return calls;
}

// Says on the debug output, once per thread name and priority, which
// priority a thread could not get.
void reportMissed(const wchar_t* origin, const ThreadObject& t, const Scheduling& wanted,
                  const Scheduling& got) {
    char name[16] = {};
    pthread_getname_np(t.native, name, sizeof name);
    const std::wstring wantedText = describeScheduling(wanted);
    static NoDestructor<std::mutex> lock;
    static NoDestructor<std::set<std::wstring>> reported;
    {
        std::lock_guard<std::mutex> guard(*lock);
        if (!reported->insert(wformat(L"%S|%s", name, wantedText.c_str())).second) return;
    }
    NKDbgPrintfW(L"%s %S: could not get %s (not permitted); it runs with %s\n", origin, name,
                 wantedText.c_str(), describeScheduling(got).c_str());
}

void applyScheduling(const wchar_t* origin, ThreadObject& t, const Scheduling& wanted) {
    if (t.tid.load() == 0) return;
    const Scheduling got = applyScheduling(kernelCalls(t), wanted);
    if (!(got == wanted)) reportMissed(origin, t, wanted, got);
}

void applyPriority(const wchar_t* origin, ThreadObject& t, int level) {
    applyScheduling(origin, t, schedulingForLevel(level, baseNice()));
}

void launchThread(std::shared_ptr<ThreadObject> object, std::function<DWORD()> body,
                  const std::string& name, std::shared_ptr<std::atomic<bool>> started);

}  // namespace

HANDLE CreateThread(std::function<DWORD()> body, int priority, const std::string& name) {
    auto object = std::make_shared<ThreadObject>();
    object->priority = priority;
    HANDLE h = addHandle(object);
    // Wait until the thread has recorded its ids, so its priority can be set at once.
    auto started = std::make_shared<std::atomic<bool>>(false);
    bool launched = false;
    starter().run([&] {
        try {
            launchThread(object, std::move(body), name, started);
            launched = true;
        } catch (const std::system_error&) {
        }
    });
    if (!launched) {
        CloseHandle(h);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return NULL_HANDLE;
    }
    started->wait(false);
    return h;
}

namespace {

void launchThread(std::shared_ptr<ThreadObject> object, std::function<DWORD()> body,
                  const std::string& name, std::shared_ptr<std::atomic<bool>> started) {
    std::thread thread([object, body = std::move(body), name, started]() mutable {
        tlsSelf = object;
        object->tid = static_cast<pid_t>(::syscall(SYS_gettid));
        object->native = pthread_self();
        if (!name.empty()) pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        applyPriority(L"host::CreateThread", *object, object->priority.load());
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
}

}  // namespace

BOOL SetThreadPriority(HANDLE thread, int level) {
    auto t = threadOf(thread);
    if (!t) return FALSE_;
    if (level < THREAD_PRIORITY_TIME_CRITICAL || level > THREAD_PRIORITY_IDLE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    t->priority = level;
    t->rtPriority = 248 + level;
    applyPriority(L"host::SetThreadPriority", *t, level);
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
        // process may use it; otherwise the most urgent the process may ask.
        applyScheduling(L"host::CeSetThreadPriority", *t, schedulingForRealTimeLevel(level));
    } else {
        t->priority = level - 248;
        applyPriority(L"host::CeSetThreadPriority", *t, level - 248);
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

}  // namespace host
