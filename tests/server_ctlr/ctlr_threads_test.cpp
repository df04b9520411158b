// The controller's threads on a manual clock: the watchdog services, the
// accept loop without boards, the restart drain and the listener failure.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "server/stream_socket.h"
#include "server/tovel_ctlr.h"
#include "sim/dsp_bus.h"
#include "sim/watchdog_vendor_library.h"
#include "tests/server_ctlr/ctlr_fixture.h"
#include "tests/support/test_support.h"

namespace {

using ctlrtest::eventually;
using Threads = TovelCtlr::ThreadSet;

const std::string kUnitRegistry =
    "[HKEY_LOCAL_MACHINE\\COMM\\Firewall\\Rules\\InboundTovel]\n\"Port\"=dword:00000d75\n\n"
    "[HKEY_LOCAL_MACHINE\\Platform]\n\"Name\"=\"Kestrix Platform\"\n";

bool ended(HANDLE thread) {
    return host::WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
}

// Connects to the host port that the program's `port` was bound to; answers
// the client socket, or INVALID_SOCKET.
host::SOCKET connectTo(std::uint16_t programPort) {
    host::SOCKET s = host::INVALID_SOCKET;
    eventually([&] {
        auto port = host::boundHostPort(programPort);
        if (!port) return false;
        s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, *port);
        if (host::connect(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) ==
            0)
            return true;
        host::closesocket(s);
        s = host::INVALID_SOCKET;
        return false;
    });
    return s;
}

// Whether the server closed the connection (a receive answers 0 or an error).
bool closedByServer(host::SOCKET s) {
    char byte = 0;
    return host::recv(s, &byte, 1, 0) <= 0;
}

int firstLineIndex(const std::wstring& fragment) {
    const auto lines = testing_support::logLines();
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(fragment) != std::wstring::npos) return static_cast<int>(i);
    return -1;
}

class CtlrThreads : public ::testing::Test {
  protected:
    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>();
    host::ScopedClock scopedClock{clock};
    testing_support::TempUnitRoot root;
    testing_support::DebugCapture debug;
    ctlrtest::ExitRecorder exits;
    std::shared_ptr<sim::SimDspBus> bus = sim::installDspBus(false);

    void SetUp() override {
        ctlrtest::writeRegistry(root, kUnitRegistry);
        ctlrtest::installMarkerProgram(root, TovelCtlr::kResetHelper);
        host::setPortMap(TovelCtlr::kDefaultPort, 0);
    }
    void TearDown() override {
        TovelCtlr::deleteInstance();
        host::clearPortMap();
    }
};

TEST_F(CtlrThreads, WatchdogIsServicedEveryMinuteAndOnceMoreAfterARestartRequest) {
    clock->setMode(host::ManualClock::SleepMode::Block);
    sim::VendorWatchdogLibrary vendor({}, /*monitor=*/false);
    TovelCtlr* ctlr = TovelCtlr::createInstance(
        {.watchdog = true, .server = false, .telnet = false, .http = false});
    const HANDLE thread = ctlr->threadHandle(TovelCtlr::Thread::Watchdog);
    ASSERT_TRUE(eventually([&] { return clock->waiters() == 1; }));
    EXPECT_EQ(vendor.calls().start, 1);
    EXPECT_EQ(vendor.calls().lastTimeMs, 127000u);
    EXPECT_TRUE(debug.contains(L"0 WatchDog::Singleton() invoked.\n"));

    clock->advance(59999);
    EXPECT_EQ(vendor.calls().service, 0);
    clock->advance(1);
    ASSERT_TRUE(eventually([&] { return vendor.calls().service == 1 && clock->waiters() == 1; }));

    // The request comes while the thread sleeps: the sleep ends in one more service.
    ctlr->requestRestart();
    clock->advance(60000);
    ASSERT_TRUE(eventually([&] { return ended(thread); }));
    EXPECT_EQ(vendor.calls().service, 2);
    EXPECT_TRUE(debug.contains(L"TovelCtlr::WatchdogThread thread exiting!\n"));
    clock->advance(10 * 60000);
    EXPECT_EQ(vendor.calls().service, 2);
}

TEST_F(CtlrThreads, ClearingRunningEndsTheWatchdogServices) {
    // What deleting the controller and the power-fail shutdown both do first.
    clock->setMode(host::ManualClock::SleepMode::Block);
    sim::VendorWatchdogLibrary vendor({}, /*monitor=*/false);
    TovelCtlr* ctlr = TovelCtlr::createInstance(
        {.watchdog = true, .server = false, .telnet = false, .http = false});
    const HANDLE thread = ctlr->threadHandle(TovelCtlr::Thread::Watchdog);
    ASSERT_TRUE(eventually([&] { return clock->waiters() == 1; }));
    ctlr->stopRunning();
    clock->advance(60000);
    ASSERT_TRUE(eventually([&] { return ended(thread); }));
    EXPECT_EQ(vendor.calls().service, 1);
    EXPECT_TRUE(testing_support::logContains(L"TovelCtlr::WatchdogThread thread exiting!"));
}

TEST_F(CtlrThreads, WithoutBoardsAClientIsDroppedAndTheEarStaysOpen) {
    TovelCtlr::createInstance({.watchdog = false, .server = true, .telnet = false, .http = false});
    for (int client = 0; client < 2; ++client) {
        const host::SOCKET s = connectTo(TovelCtlr::kDefaultPort);
        ASSERT_NE(s, host::INVALID_SOCKET);
        EXPECT_TRUE(closedByServer(s));
        host::closesocket(s);
    }
    ASSERT_TRUE(eventually([] {
        return testing_support::logCount(L"NULL UsbCtlr on Accept!!; dropping connection!") == 2;
    }));
    EXPECT_TRUE(debug.contains(L"No Boards found!!!\n"));
    EXPECT_EQ(testing_support::logCount(L"Shutting down 'theEar'"), 0);
    // The banner is the first thing the server thread logs, and the first
    // network report follows the enumeration.
    const int banner = firstLineIndex(L"************* Tovel Version 191213 Startup *************");
    ASSERT_GE(banner, 0);
    EXPECT_LT(banner, firstLineIndex(L"EnumDevices"));
    EXPECT_LT(firstLineIndex(L"EnumDevices"), firstLineIndex(L"Network Status"));
    EXPECT_FALSE(exits.exited());
}

TEST_F(CtlrThreads, RestartDrainsForOneFullPassThenStartsTheResetHelperAndExits22) {
    TovelCtlr* ctlr = TovelCtlr::createInstance(
        {.watchdog = false, .server = true, .telnet = false, .http = false});
    // The server thread waits in its accept until a client comes.
    ASSERT_TRUE(
        eventually([] { return host::boundHostPort(TovelCtlr::kDefaultPort).has_value(); }));
    const DWORD requested = host::GetTickCount();
    ctlr->requestRestart();
    const host::SOCKET s = connectTo(TovelCtlr::kDefaultPort);
    ASSERT_NE(s, host::INVALID_SOCKET);
    ASSERT_TRUE(eventually([&] { return exits.exited(); }));
    host::closesocket(s);

    EXPECT_EQ(exits.code(), 22);
    // One pass: the 100-ms pause and the 5000-ms grace time.
    EXPECT_EQ(exits.tick() - requested, 5100u);
    EXPECT_FALSE(ctlr->running());
    EXPECT_TRUE(eventually([&] { return ctlrtest::markerExists(root, TovelCtlr::kResetHelper); }));

    const int wait = firstLineIndex(L"Restart Requested: Wait 5 sec for tovels to self-terminate.");
    const int terminate = firstLineIndex(L"Restart Requested: Terminate any remaining tovels.");
    const int exiting = firstLineIndex(L"Restart Requested: Exiting TovelCtlr thread via reboot");
    ASSERT_GE(wait, 0);
    EXPECT_LT(wait, terminate);
    EXPECT_LT(terminate, exiting);
    EXPECT_EQ(testing_support::logCount(L"Restart Requested: Wait 5 sec"), 1);
    EXPECT_LT(firstLineIndex(L"NULL UsbCtlr on Accept!!"), wait);
}

TEST_F(CtlrThreads, ListenerThatCannotBindEndsTheProcessWithMinus2AfterThreeSeconds) {
    StreamSocket occupant;
    ASSERT_TRUE(occupant.create(0));
    ASSERT_TRUE(occupant.listen(1));
    host::setPortMap(TovelCtlr::kDefaultPort, host::localPort(occupant.handle()));
    TovelCtlr* ctlr = TovelCtlr::createInstance(Threads::none());
    std::thread([ctlr] { ctlr->createListenerSocket(); }).detach();
    ASSERT_TRUE(eventually([&] { return exits.exited(); }));
    EXPECT_EQ(exits.code(), -2);
    EXPECT_EQ(exits.tick(), 3000u);
    EXPECT_TRUE(
        debug.contains(L"TovelCtlr::createListenerSocket Error creating listening socket!\n"));
    // Which port, and why.
    EXPECT_TRUE(
        debug.contains(host::wformat(L"port 3445 (host port %u): address in use (error 10048)",
                                     static_cast<unsigned>(host::localPort(occupant.handle())))))
        << debug.all();
    EXPECT_TRUE(testing_support::logContains(L"Network Status"));
}

TEST_F(CtlrThreads, ListeningRulesWithoutBoards) {
    TovelCtlr* ctlr = TovelCtlr::createInstance(Threads::none());
    EXPECT_TRUE(ctlr->shouldListen());  // no board and no session: accept, then look for a board
    {
        host::LockGuard lock(ctlr->tovelLock());
        EXPECT_EQ(ctlr->findFreeCtlr(), nullptr);
    }
    EXPECT_FALSE(ctlr->anyTovelActive());
    ctlr->purgeDoneTovels();
    ctlr->terminateAllTovels();
    EXPECT_TRUE(ctlr->running());
    ctlr->requestRestart();
    EXPECT_FALSE(ctlr->shouldListen());
    EXPECT_FALSE(ctlr->running());  // a restart with no sessions left ends the loop
    EXPECT_TRUE(ctlr->restartRequested());
}

TEST_F(CtlrThreads, InstanceIsConstructedOnceAndSetsAcceptAnyCofVersion) {
    acceptAnyCofVersion = false;
    TovelCtlr* first = TovelCtlr::createInstance(Threads::none());
    EXPECT_TRUE(acceptAnyCofVersion);
    EXPECT_EQ(TovelCtlr::current(), first);
    EXPECT_EQ(TovelCtlr::createInstance(Threads::none()), first);
    TovelCtlr::deleteInstance();
    EXPECT_EQ(TovelCtlr::current(), nullptr);
    TovelCtlr::deleteInstance();  // nothing left to delete
}

}  // namespace
