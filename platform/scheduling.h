#pragma once
// How a thread priority of the original's scales becomes Linux scheduling,
// and what a thread gets when the process may not have it. The kernel calls
// are passed in, so the fall-back can be tried without privileges.
#include <functional>
#include <string>

namespace host {

enum class SchedClass { Normal, Idle, RealTime };

struct Scheduling {
    SchedClass cls = SchedClass::Normal;
    int nice = 0;        // Normal: -20 (most urgent) .. 19
    int rtPriority = 0;  // RealTime: 1 .. 99 (most urgent)
    friend bool operator==(const Scheduling&, const Scheduling&) = default;
};

// Relative levels 0 (time-critical) .. 7 (idle): the idle level is the idle
// class; the others the normal class, two nice steps per level around the
// process's own nice value (normal is `baseNice`).
Scheduling schedulingForLevel(int level, int baseNice = 0);
// Real-time levels 0 (highest) .. 247 of the original's scale: SCHED_FIFO
// 99 .. 1, above every relative level.
Scheduling schedulingForRealTimeLevel(int level);

// The kernel's side, for one thread. Each set call answers false when the
// kernel refuses it.
struct SchedulingCalls {
    std::function<bool(const Scheduling&)> setClass;  // class (and real-time priority)
    std::function<bool(int nice)> setNice;
    std::function<int()> nice;               // the thread's nice value now
    std::function<int()> lowestNiceAllowed;  // the process's limit (-20 when privileged)
};

// Gives the thread `wanted`, or the best the process may use instead: real
// time refused gives the normal class at the most urgent nice allowed; a nice
// refused gives the most urgent one allowed, never a less urgent one than the
// thread has. Answers what the thread has now.
Scheduling applyScheduling(const SchedulingCalls& calls, const Scheduling& wanted);

// "SCHED_FIFO 92", "nice -4", "the idle class".
std::wstring describeScheduling(const Scheduling& s);

}  // namespace host
