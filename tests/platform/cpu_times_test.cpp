// The kernel's processor time counters: which states count as busy, and
// lines that are not the machine's total.
#include <gtest/gtest.h>

#include "platform/cpu_times.h"

using host::CpuTimes;
using host::parseCpuTimes;

TEST(CpuTimes, IdleAndIoWaitAreTheOnlyStatesThatAreNotBusy) {
    struct Case {
        const char* line;
        std::uint64_t busy, total;
    };
    const Case cases[] = {
        // user nice system idle iowait irq softirq steal guest guest_nice
        {"cpu  10 20 30 400 50 6 7 8 90 100", 10 + 20 + 30 + 6 + 7 + 8,
         10 + 20 + 30 + 400 + 50 + 6 + 7 + 8},
        {"cpu 1 0 2 100", 3, 103},  // an old kernel's four fields
        {"cpu  18446744073709551 0 0 5 0 0 0 0", 18446744073709551ull, 18446744073709556ull},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto times = parseCpuTimes(c.line);
        ASSERT_TRUE(times.has_value());
        EXPECT_EQ(times->busy, c.busy);
        EXPECT_EQ(times->total, c.total);
    }
}

TEST(CpuTimes, LinesThatAreNotTheMachinesTotalAreRefused) {
    for (const char* line :
         {"cpu0 1 2 3 4 5 6 7 8", "intr 12345", "cpu  1 2 3", "cpu  1 x 3 4", ""}) {
        SCOPED_TRACE(line);
        EXPECT_FALSE(parseCpuTimes(line).has_value());
    }
}

TEST(CpuTimes, TheRunningKernelsCountersMoveForward) {
    const auto first = host::readCpuTimes();
    ASSERT_TRUE(first.has_value());
    EXPECT_LE(first->busy, first->total);
    const auto second = host::readCpuTimes();
    ASSERT_TRUE(second.has_value());
    EXPECT_GE(second->total, first->total);
}
