#pragma once
// The time source of the whole system: a 32-bit millisecond tick counter that
// wraps, sleeping, and the calendar time. Every wait and time stamp of the
// system's own code goes through the current clock, so tests can replace it
// with a ManualClock and run minutes of protocol time in milliseconds.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/win_types.h"

namespace host {

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;  // 1..12
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

class Clock {
  public:
    virtual ~Clock() = default;
    virtual DWORD tickCount() = 0;
    virtual void sleep(DWORD ms) = 0;
    // Seconds and milliseconds since the Unix epoch, UTC.
    virtual std::chrono::system_clock::time_point wallTime() = 0;

    // Waits on `cv` (with `lock` held) until `ready()` holds or `timeoutMs` of
    // this clock's time have passed; INFINITE waits for ever. Answers ready().
    virtual bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                         DWORD timeoutMs, const std::function<bool()>& ready) = 0;
};

// Real time: the monotonic clock for ticks, the system clock for the calendar.
class RealClock final : public Clock {
  public:
    DWORD tickCount() override;
    void sleep(DWORD ms) override;
    std::chrono::system_clock::time_point wallTime() override;
    bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, DWORD timeoutMs,
                 const std::function<bool()>& ready) override;
};

// Virtual time for tests. Time moves only when a test calls advance() or, in
// the Advance mode, when any thread sleeps (the sleep returns at once, having
// moved the time on). In the Block mode a sleeping thread waits until other
// threads have advanced the time past its wake-up tick. Timed waits end when
// the condition holds or when virtual time passes their deadline.
class ManualClock final : public Clock {
  public:
    enum class SleepMode { Advance, Block };
    explicit ManualClock(DWORD startTick = 0, SleepMode mode = SleepMode::Advance);

    void advance(DWORD ms);
    void setTick(DWORD tick);
    void setMode(SleepMode mode) { mode_ = mode; }
    // Total virtual milliseconds ever slept through sleep() (all threads).
    std::uint64_t totalSlept() const { return slept_.load(); }
    // Number of threads blocked in sleep() or a timed wait right now.
    int waiters() const { return waiters_.load(); }

    DWORD tickCount() override { return static_cast<DWORD>(now_.load()); }
    void sleep(DWORD ms) override;
    std::chrono::system_clock::time_point wallTime() override;
    bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, DWORD timeoutMs,
                 const std::function<bool()>& ready) override;

  private:
    std::atomic<std::uint64_t> now_;
    std::atomic<std::uint64_t> slept_{0};
    std::atomic<int> waiters_{0};
    std::atomic<SleepMode> mode_;
    std::chrono::system_clock::time_point wallBase_;
    std::mutex mutex_;
    std::condition_variable moved_;
};

// The clock in force. Defaults to a RealClock. Replace it only while no other
// thread of the system runs (tests do it in their set-up).
Clock& clock();
void setClock(std::shared_ptr<Clock> clock);

// RAII: installs a clock for a scope and restores the previous one.
class ScopedClock {
  public:
    explicit ScopedClock(std::shared_ptr<Clock> clock);
    ~ScopedClock();
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;

  private:
    std::shared_ptr<Clock> previous_;
};

// The original's entry points, on the clock in force.
DWORD GetTickCount();
void Sleep(DWORD ms);
void GetSystemTime(SYSTEMTIME* out);  // UTC
void GetLocalTime(SYSTEMTIME* out);   // local time zone of the host

}  // namespace host
