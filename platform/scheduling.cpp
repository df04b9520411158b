#include "platform/scheduling.h"

#include <algorithm>

#include "platform/text.h"

namespace host {
namespace {

constexpr int kIdleLevel = 7;
constexpr int kNormalLevel = 3;
constexpr int kNiceStepsPerLevel = 2;
constexpr int kMostUrgentNice = -20;
constexpr int kLastRealTimeLevel = 247;  // 248..255 are the relative levels

// The most urgent nice in [wanted, current) that the kernel takes; current if none.
int niceAsUrgentAsAllowed(const SchedulingCalls& calls, int wanted) {
    const int current = calls.nice();
    if (wanted >= current) {
        // Less urgent (or the same) is always allowed.
        return calls.setNice(wanted) ? wanted : current;
    }
    if (calls.setNice(wanted)) return wanted;
    const int lowest = std::max(calls.lowestNiceAllowed(), wanted);
    if (lowest < current && calls.setNice(lowest)) return lowest;
    return current;
}

}  // namespace

Scheduling schedulingForLevel(int level, int baseNice) {
    if (level >= kIdleLevel) return {SchedClass::Idle, 0, 0};
    const int nice = baseNice + (level - kNormalLevel) * kNiceStepsPerLevel;
    return {SchedClass::Normal, std::clamp(nice, kMostUrgentNice, 19), 0};
}

Scheduling schedulingForRealTimeLevel(int level) {
    level = std::clamp(level, 0, kLastRealTimeLevel);
    return {SchedClass::RealTime, 0, 99 - level * 98 / kLastRealTimeLevel};
}

Scheduling applyScheduling(const SchedulingCalls& calls, const Scheduling& wanted) {
    if (wanted.cls != SchedClass::Normal && calls.setClass(wanted)) return wanted;
    // The normal class: asked for, or the best there is when real time is
    // refused. Only leaving the idle class is ever refused (an unprivileged
    // process may not); the thread then stays there.
    if (!calls.setClass({SchedClass::Normal, 0, 0})) return {SchedClass::Idle, 0, 0};
    if (wanted.cls == SchedClass::Idle) return {SchedClass::Normal, calls.nice(), 0};
    const int nice = wanted.cls == SchedClass::RealTime ? kMostUrgentNice : wanted.nice;
    return {SchedClass::Normal, niceAsUrgentAsAllowed(calls, nice), 0};
}

std::wstring describeScheduling(const Scheduling& s) {
    switch (s.cls) {
        case SchedClass::Idle:
            return L"the idle class";
        case SchedClass::RealTime:
            return wformat(L"SCHED_FIFO %d", s.rtPriority);
        case SchedClass::Normal:
            break;
    }
    return wformat(L"nice %d", s.nice);
}

}  // namespace host
