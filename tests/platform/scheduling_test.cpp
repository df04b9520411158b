// Thread priorities on Linux: which scheduling each level asks for, and what
// a thread gets when the process may not have it (an unprivileged process:
// no real time, no nice below its limit, no way out of the idle class).
#include <gtest/gtest.h>

#include "platform/scheduling.h"

using namespace host;

namespace {

// A thread as the kernel keeps it, with an unprivileged process's rules.
struct FakeKernel {
    bool realTimeAllowed = false;
    int lowestNice = 0;  // RLIMIT_NICE 20
    Scheduling now{SchedClass::Normal, 0, 0};

    SchedulingCalls calls() {
        SchedulingCalls c;
        c.setClass = [this](const Scheduling& s) {
            if (s.cls == SchedClass::RealTime && !realTimeAllowed) return false;
            if (now.cls == SchedClass::Idle && s.cls != SchedClass::Idle && !realTimeAllowed)
                return false;  // only a privileged thread leaves the idle class
            now.cls = s.cls;
            now.rtPriority = s.rtPriority;
            return true;
        };
        c.setNice = [this](int nice) {
            if (nice < now.nice && nice < lowestNice) return false;
            now.nice = nice;
            return true;
        };
        c.nice = [this] { return now.nice; };
        c.lowestNiceAllowed = [this] { return lowestNice; };
        return c;
    }
};

}  // namespace

TEST(Scheduling, LevelsMapAroundTheProcesssOwnNiceAndRealTimeAboveThemAll) {
    EXPECT_EQ(schedulingForLevel(0), (Scheduling{SchedClass::Normal, -6, 0}));
    EXPECT_EQ(schedulingForLevel(1), (Scheduling{SchedClass::Normal, -4, 0}));
    EXPECT_EQ(schedulingForLevel(3), (Scheduling{SchedClass::Normal, 0, 0}));
    EXPECT_EQ(schedulingForLevel(4, 10), (Scheduling{SchedClass::Normal, 12, 0}));
    EXPECT_EQ(schedulingForLevel(6, 17), (Scheduling{SchedClass::Normal, 19, 0}));  // capped
    EXPECT_EQ(schedulingForLevel(7).cls, SchedClass::Idle);
    EXPECT_EQ(schedulingForRealTimeLevel(0).rtPriority, 99);
    EXPECT_EQ(schedulingForRealTimeLevel(20).rtPriority, 92);
    EXPECT_EQ(schedulingForRealTimeLevel(247).rtPriority, 1);
    EXPECT_EQ(describeScheduling(schedulingForRealTimeLevel(20)), L"SCHED_FIFO 92");
    EXPECT_EQ(describeScheduling(schedulingForLevel(1)), L"nice -4");
    EXPECT_EQ(describeScheduling(schedulingForLevel(7)), L"the idle class");
}

TEST(Scheduling, AThreadGetsTheBestTheProcessMayHave) {
    struct Case {
        const char* what;
        bool privileged;
        int lowestNice;
        Scheduling start, wanted, got;
    };
    const auto nice = [](int n) { return Scheduling{SchedClass::Normal, n, 0}; };
    const Scheduling normal = nice(0);
    const Scheduling idle{SchedClass::Idle, 0, 0};
    const Scheduling fifo20 = schedulingForRealTimeLevel(20);
    const Scheduling level1 = schedulingForLevel(1);
    const Case cases[] = {
        {"privileged: real time", true, -20, normal, fifo20, fifo20},
        {"real time refused: most urgent nice allowed", false, -5, normal, fifo20, nice(-5)},
        {"real time refused, no nice below 0", false, 20, normal, fifo20, normal},
        {"highest level refused: stays at 0", false, 20, normal, level1, normal},
        {"highest level, part of it allowed", false, -2, normal, level1, nice(-2)},
        {"less urgent is always allowed", false, 20, normal, schedulingForLevel(4), nice(2)},
        {"never less urgent than the thread was", false, 20, nice(-3), level1, nice(-3)},
        {"into the idle class", false, 20, normal, idle, idle},
        {"out of the idle class refused", false, 20, idle, fifo20, idle},
        {"out of the idle class, privileged", true, -20, idle, schedulingForLevel(3), normal},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FakeKernel kernel;
        kernel.realTimeAllowed = c.privileged;
        kernel.lowestNice = c.lowestNice;
        kernel.now = c.start;
        const Scheduling got = applyScheduling(kernel.calls(), c.wanted);
        EXPECT_EQ(got, c.got) << describeScheduling(got);
        EXPECT_EQ(kernel.now.cls, got.cls);
    }
}
