// Named events between processes on one unit root (real time: the test is
// about two processes, so both run on the real clock).
#include <gtest/gtest.h>

#include "platform/child_process.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/sync.h"
#include "tests/support/test_support.h"

using namespace host;

TEST(NamedEventsBetweenProcesses, AnotherProcessOnTheRootSeesTheSignalAndItsData) {
    testing_support::TempUnitRoot root;
    const HANDLE ask = CreateEventW(false, false, L"PeerAsk");
    EXPECT_EQ(GetLastError(), 0u);
    const HANDLE answer = CreateEventW(false, false, L"PeerAnswer");
    ChildProcess peer(TOVEL_BUILD_DIR "/tests/platform/named_event_peer", {root.path()});
    ASSERT_TRUE(peer.started());

    ASSERT_TRUE(SetEventData(ask, 0x1234ABCDu));
    ASSERT_TRUE(SetEvent(ask));
    ASSERT_EQ(WaitForSingleObject(answer, 10000), WAIT_OBJECT_0);
    EXPECT_EQ(GetEventData(answer), 0x1234ABCEu);
    EXPECT_EQ(peer.waitForExit(std::chrono::seconds(10)), 0);
    // The peer consumed the auto-reset signal: nothing is left for us.
    EXPECT_EQ(WaitForSingleObject(ask, 0), WAIT_TIMEOUT);

    // Once no process holds it, the event starts afresh: a signal and data
    // left behind do not reach the next holder.
    SetEventData(ask, 7);
    SetEvent(ask);
    CloseHandle(ask);
    CloseHandle(answer);
    const HANDLE again = CreateEventW(false, false, L"PeerAsk");
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(WaitForSingleObject(again, 0), WAIT_TIMEOUT);
    EXPECT_EQ(GetEventData(again), 0u);
    CloseHandle(again);
}

TEST(NamedEventsBetweenProcesses, EventsOfDifferentRootsAreDifferentObjects) {
    HANDLE first = NULL_HANDLE;
    {
        testing_support::TempUnitRoot one;
        first = CreateEventW(false, false, L"RotaryEvent");
        SetEventData(first, 5);
    }
    testing_support::TempUnitRoot two;
    const HANDLE second = CreateEventW(false, false, L"RotaryEvent");
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(GetEventData(second), 0u);
    CloseHandle(first);
    CloseHandle(second);
}
