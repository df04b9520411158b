#include "platform/clock.h"

#include <ctime>
#include <thread>
#include <vector>

namespace host {
namespace {

std::mutex& clockMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<Clock>& clockSlot() {
    static std::shared_ptr<Clock> current = std::make_shared<RealClock>();
    return current;
}
// The clock in force, cached for the hot path (tick reads in polling loops).
std::atomic<Clock*> currentClock{nullptr};

SYSTEMTIME toSystemTime(const std::tm& tm, int ms) {
    SYSTEMTIME st{};
    st.wYear = static_cast<WORD>(tm.tm_year + 1900);
    st.wMonth = static_cast<WORD>(tm.tm_mon + 1);
    st.wDayOfWeek = static_cast<WORD>(tm.tm_wday);
    st.wDay = static_cast<WORD>(tm.tm_mday);
    st.wHour = static_cast<WORD>(tm.tm_hour);
    st.wMinute = static_cast<WORD>(tm.tm_min);
    st.wSecond = static_cast<WORD>(tm.tm_sec);
    st.wMilliseconds = static_cast<WORD>(ms);
    return st;
}

void breakDown(bool local, SYSTEMTIME* out) {
    auto tp = clock().wallTime();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(tp.time_since_epoch()).count();
    std::time_t secs = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    if (local)
        localtime_r(&secs, &tm);
    else
        gmtime_r(&secs, &tm);
    *out = toSystemTime(tm, static_cast<int>(ms % 1000));
}

}  // namespace

DWORD RealClock::tickCount() {
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<DWORD>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void RealClock::sleep(DWORD ms) {
    if (ms == 0)
        std::this_thread::yield();
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::chrono::system_clock::time_point RealClock::wallTime() {
    return std::chrono::system_clock::now();
}

bool RealClock::waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                        DWORD timeoutMs, const std::function<bool()>& ready) {
    if (timeoutMs == INFINITE) {
        cv.wait(lock, ready);
        return true;
    }
    return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
}

ManualClock::ManualClock(DWORD startTick, SleepMode mode)
    : now_(startTick), mode_(mode), wallBase_(std::chrono::system_clock::now()) {}

void ManualClock::advance(DWORD ms) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        now_ += ms;
    }
    moved_.notify_all();
}

void ManualClock::setTick(DWORD tick) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Keep the 64-bit count monotonic: move forward to the next time the
        // 32-bit tick shows `tick`.
        std::uint64_t now = now_.load();
        DWORD delta = tick - static_cast<DWORD>(now);
        now_ = now + delta;
    }
    moved_.notify_all();
}

void ManualClock::sleep(DWORD ms) {
    slept_ += ms;
    if (mode_.load() == SleepMode::Advance) {
        advance(ms);
        std::this_thread::yield();
        return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    const std::uint64_t wake = now_.load() + ms;
    ++waiters_;
    moved_.wait(lock, [&] { return now_.load() >= wake; });
    --waiters_;
}

std::chrono::system_clock::time_point ManualClock::wallTime() {
    return wallBase_ + std::chrono::milliseconds(now_.load());
}

bool ManualClock::waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                          DWORD timeoutMs, const std::function<bool()>& ready) {
    if (timeoutMs == INFINITE) {
        cv.wait(lock, ready);
        return true;
    }
    // The waiter's condition variable is not ours, so look at virtual time in
    // short real slices.
    const std::uint64_t deadline = now_.load() + timeoutMs;
    ++waiters_;
    bool ok = ready();
    while (!ok && now_.load() < deadline) {
        cv.wait_for(lock, std::chrono::milliseconds(1));
        ok = ready();
    }
    --waiters_;
    return ok;
}

Clock& clock() {
    Clock* c = currentClock.load(std::memory_order_acquire);
    if (c) return *c;
    std::lock_guard<std::mutex> lock(clockMutex());
    c = clockSlot().get();
    currentClock.store(c, std::memory_order_release);
    return *c;
}

void setClock(std::shared_ptr<Clock> clock) {
    std::lock_guard<std::mutex> lock(clockMutex());
    if (!clock) clock = std::make_shared<RealClock>();
    // A thread that read the old clock may still be inside one of its calls;
    // clocks are few and small, so retired ones are kept for the process.
    static std::vector<std::shared_ptr<Clock>> retired;
    retired.push_back(clockSlot());
    clockSlot() = std::move(clock);
    currentClock.store(clockSlot().get(), std::memory_order_release);
}

ScopedClock::ScopedClock(std::shared_ptr<Clock> clock) {
    {
        std::lock_guard<std::mutex> lock(clockMutex());
        previous_ = clockSlot();
    }
    setClock(std::move(clock));
}

ScopedClock::~ScopedClock() {
    setClock(previous_);
}

DWORD GetTickCount() {
    return clock().tickCount();
}
void Sleep(DWORD ms) {
    clock().sleep(ms);
}
void GetSystemTime(SYSTEMTIME* out) {
    breakDown(false, out);
}
void GetLocalTime(SYSTEMTIME* out) {
    breakDown(true, out);
}

}  // namespace host
