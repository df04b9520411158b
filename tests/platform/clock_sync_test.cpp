#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/clock.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "tests/support/waiting.h"

using namespace host;

TEST(ManualClock, SleepAdvancesVirtualTimeAtOnceForEveryThread) {
    auto manual = std::make_shared<ManualClock>(0xFFFFFF00u);
    ScopedClock scoped(manual);
    DWORD start = GetTickCount();
    Sleep(252500);
    // The 32-bit tick wraps; differences stay right.
    EXPECT_EQ(GetTickCount() - start, 252500u);
    EXPECT_LT(GetTickCount(), start);
    DWORD seen = 0;
    std::thread other([&] { seen = GetTickCount(); });
    other.join();
    EXPECT_EQ(seen, GetTickCount());
    EXPECT_EQ(manual->totalSlept(), 252500u);
}

TEST(ManualClock, BlockModeSleeperWakesOnlyWhenTimeIsAdvanced) {
    auto manual = std::make_shared<ManualClock>(0, ManualClock::SleepMode::Block);
    ScopedClock scoped(manual);
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        Sleep(60000);
        woke = true;
    });
    EXPECT_TRUE(testing_support::eventually([&] { return manual->waiters() > 0; }));
    manual->advance(59999);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(woke);
    manual->advance(1);
    sleeper.join();
    EXPECT_TRUE(woke);
}

TEST(Events, TimedWaitEndsWhenVirtualTimePassesTheDeadline) {
    auto manual = std::make_shared<ManualClock>();
    ScopedClock scoped(manual);
    HANDLE event = CreateEventW(false, false, nullptr);
    std::atomic<DWORD> result{0};
    std::thread waiter([&] { result = WaitForSingleObject(event, 2000); });
    EXPECT_TRUE(testing_support::eventually([&] { return manual->waiters() > 0; }));
    manual->advance(2000);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_TIMEOUT);
    CloseHandle(event);
}

TEST(Events, NamedEventCarriesDataBetweenThreadsAndAutoResets) {
    HANDLE producer = CreateEventW(false, false, L"RotaryEvent");
    HANDLE consumer = CreateEventW(false, false, L"rotaryevent");  // names ignore case
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    std::thread t([&] {
        SetEventData(producer, 0xFFFE0001u);
        SetEvent(producer);
    });
    EXPECT_EQ(WaitForSingleObject(consumer, INFINITE), WAIT_OBJECT_0);
    t.join();
    EXPECT_EQ(GetEventData(consumer), 0xFFFE0001u);
    // Auto-reset: consumed by the one wait.
    EXPECT_EQ(WaitForSingleObject(consumer, 0), WAIT_TIMEOUT);
    CloseHandle(producer);
    CloseHandle(consumer);
    EXPECT_EQ(WaitForSingleObject(consumer, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Threads, HandleSignalsAtEndWithExitCodeAndPriorityIsRecorded) {
    std::atomic<bool> go{false};
    HANDLE t = CreateThread(
        [&]() -> DWORD {
            while (!go) std::this_thread::yield();
            return 42;
        },
        THREAD_PRIORITY_BELOW_NORMAL, "worker");
    ASSERT_NE(t, NULL_HANDLE);
    EXPECT_EQ(GetThreadPriority(t), THREAD_PRIORITY_BELOW_NORMAL);
    DWORD code = 0;
    GetExitCodeThread(t, &code);
    EXPECT_EQ(code, STILL_ACTIVE);
    go = true;
    EXPECT_EQ(WaitForSingleObject(t, INFINITE), WAIT_OBJECT_0);
    GetExitCodeThread(t, &code);
    EXPECT_EQ(code, 42u);
    CloseHandle(t);
}

TEST(Threads, TerminatedThreadIsAbandonedWithoutTouchingItsCallersState) {
    auto release = std::make_shared<std::atomic<bool>>(false);
    HANDLE t = CreateThread([release]() -> DWORD {
        while (!*release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return 7;
    });
    EXPECT_TRUE(TerminateThread(t, 99));
    EXPECT_EQ(WaitForSingleObject(t, 0), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeThread(t, &code);
    EXPECT_EQ(code, 99u);
    CloseHandle(t);
    *release = true;  // the abandoned body ends later on its own; its code is ignored
}

TEST(CriticalSection, IsRecursive) {
    CriticalSection cs;
    std::lock_guard<CriticalSection> a(cs);
    std::lock_guard<CriticalSection> b(cs);
    SUCCEED();
}
