// The board registry: enumeration, identification by serial number, failed
// boots, retirement and purging, device-change threads and the orderly end.
#include <atomic>
#include <thread>

#include "boards/analog_ctlr.h"
#include "boards/error_log.h"
#include "boards/ethernet_ctlr.h"
#include "boards/rf_ctlr.h"
#include "boards/t1_ctlr.h"
#include "platform/devices.h"
#include "platform/files.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "tests/boards/board_fixture.h"
#include "tools/unitkit/default_images.h"

namespace boardtest {
namespace {

class RegistryTest : public BoardTest {
  protected:
    static void enumerate(bool assumeT1 = false) { UsbCtlr::EnumDevices(assumeT1, true, false); }

    // Index of the first log entry containing `fragment`, or -1.
    static int logIndex(const std::wstring& fragment) {
        const auto lines = log();
        for (std::size_t i = 0; i < lines.size(); ++i)
            if (lines[i].find(fragment) != std::wstring::npos) return static_cast<int>(i);
        return -1;
    }
};

TEST_F(RegistryTest, WithoutBoardsAllNineOpensFailAndAreLogged) {
    enumerate();
    const auto lines = log();
    std::vector<std::wstring> handleLines;
    for (const auto& line : lines)
        if (line.rfind(L"Handle[", 0) == 0) handleLines.push_back(line);
    ASSERT_EQ(handleLines.size(), 9u);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(handleLines[static_cast<std::size_t>(i)],
                  L"Handle[" + std::to_wstring(i) + L"]=0xffffffff ");
    EXPECT_TRUE(logged(L"UsbCtlr::EnumDevices() done, have 0 ctlrs"));
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_EQ(UsbCtlr::GetCtlr(0), nullptr);
}

TEST_F(RegistryTest, DefaultBoardsAreRegisteredAndBootedFromTheShippedImages) {
    // From an empty folder: the shipped images alone boot every kind.
    for (const unitkit::DefaultImage& image : unitkit::defaultImages())
        host::DeleteFileW((installFolder + L"\\" + host::widen(image.fileName)).c_str());
    unitkit::writeDefaultImages(root.hostPath(installFolder));
    auto t1 = attach(sim::BoardKind::T1);
    auto rf = attach(sim::BoardKind::RF);
    auto ip150 = attach(sim::BoardKind::IP150);
    auto ip163 = attach(sim::BoardKind::IP163);
    auto analog = attach(sim::BoardKind::Analog);

    UsbCtlr::EnumDevices(false, true, false);

    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 5);
    EXPECT_TRUE(logged(L"UsbCtlr::EnumDevices() done, have 5 ctlrs"));
    for (const auto& board : {t1, rf, ip150, ip163, analog}) {
        EXPECT_EQ(board->bootCount(), 1u) << sim::kindName(board->kind());
        EXPECT_TRUE(board->held());
    }
    EXPECT_EQ(t1->programVersion(), (sim::ProgramVersion{102, 2}));
    EXPECT_EQ(rf->programVersion(), (sim::ProgramVersion{53, 3}));
    EXPECT_EQ(ip150->programVersion(), (sim::ProgramVersion{99, 6}));
    EXPECT_EQ(ip163->programVersion(), (sim::ProgramVersion{99, 6}));
    EXPECT_EQ(analog->programVersion(), (sim::ProgramVersion{58, 4}));
    EXPECT_FALSE(logged(L"Boot Fails"));

    // Index order: analog, T1, RF, then the Ethernet boards in scan order.
    EXPECT_NE(dynamic_cast<AnalogCtlr*>(UsbCtlr::GetCtlr(0)), nullptr);
    EXPECT_NE(dynamic_cast<T1Ctlr*>(UsbCtlr::GetCtlr(1)), nullptr);
    EXPECT_NE(dynamic_cast<RFCtlr*>(UsbCtlr::GetCtlr(2)), nullptr);
    auto* first = dynamic_cast<EthernetCtlr*>(UsbCtlr::GetCtlr(3));
    auto* second = dynamic_cast<EthernetCtlr*>(UsbCtlr::GetCtlr(4));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->getCofFileName(), L"ip.cof");
    EXPECT_EQ(second->getCofFileName(), L"ipg.cof");
    EXPECT_EQ(UsbCtlr::GetCtlr(-1), nullptr);
    EXPECT_EQ(UsbCtlr::GetCtlr(UsbCtlr::GetCtlrCount()), nullptr);

    EXPECT_EQ(UsbCtlr::GetEthernetCtlrForTest(1), second);
    EXPECT_EQ(UsbCtlr::GetAnalogCtlrForTest(-1), nullptr);
}

TEST_F(RegistryTest, RegisteredBoardIsNotBootedAgainByTheNextScan) {
    auto board = attach(sim::BoardKind::T1);
    enumerate();
    enumerate();
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(board->bootCount(), 1u);
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices() done, have 1 ctlrs"), 2);
}

TEST_F(RegistryTest, SerialsOutsideEveryRangeAreT1OnlyWhenAssumed) {
    for (std::uint32_t serial : {1130000000u, 1300000000u}) {
        SCOPED_TRACE(serial);
        auto board = attach(sim::BoardKind::T1, serial);
        enumerate(false);
        EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
        EXPECT_FALSE(board->held()) << "the board's handle was not closed again";
        EXPECT_EQ(board->bootCount(), 0u);
        EXPECT_TRUE(logged(L"~UnknownCtlr Destructing"));

        enumerate(true);
        EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
        ASSERT_NE(UsbCtlr::GetT1CtlrForTest(0), nullptr);
        EXPECT_EQ(UsbCtlr::GetT1CtlrForTest(0)->getSerialNumber(), serial);
        UsbCtlr::KillT1(UsbCtlr::GetT1CtlrForTest(0));
        bus->detachAll(false);
    }
}

TEST_F(RegistryTest, Serial1250000000IsAnEthernetBoard) {
    auto board = attach(sim::BoardKind::IP163, 1250000000u);
    enumerate();
    ASSERT_NE(UsbCtlr::GetEthernetCtlrForTest(0), nullptr);
    EXPECT_EQ(UsbCtlr::GetEthernetCtlrForTest(0)->getCofFileName(), L"ipg.cof");
    EXPECT_EQ(board->bootCount(), 1u);
}

TEST_F(RegistryTest, SecondBoardWithARegisteredSerialIsClosedAgain) {
    auto first = attach(sim::BoardKind::RF);
    auto twin = attach(sim::BoardKind::RF);
    enumerate();
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_TRUE(first->held());
    EXPECT_FALSE(twin->held());
    EXPECT_EQ(twin->bootCount(), 0u);
    EXPECT_EQ(loggedCount(L"RFCtlr::RFCtlr Created a RFCtlr!"), 1);
}

TEST_F(RegistryTest, AssumedT1SkipsTheDuplicateCheck) {
    attach(sim::BoardKind::T1, 1500000000u);
    attach(sim::BoardKind::T1, 1500000000u);
    enumerate(true);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 2);
}

TEST_F(RegistryTest, FailedBootIsLoggedNotRegisteredAndTheScanGoesOn) {
    auto stuck = attach(sim::BoardKind::T1);
    stuck->reportState(dspInReset);
    auto good = attach(sim::BoardKind::RF);
    enumerate();

    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_NE(UsbCtlr::GetRFCtlrForTest(0), nullptr);
    const int failed = logIndex(L"EnumDevices:: Boot Fails");
    ASSERT_GE(failed, 0);
    EXPECT_LT(logIndex(L"Handle[0]="), failed);
    EXPECT_LT(failed, logIndex(L"Handle[1]="));
    EXPECT_EQ(loggedCount(L"EnumDevices:: Boot Fails"), 1);

    // A later scan tries the board again.
    stuck->clearReportedState();
    enumerate();
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 2);
}

// A driver whose opens come back into the registry, as a nested scan on the
// enumerating thread would.
class ReenteringDriver : public host::StreamDriver {
  public:
    std::shared_ptr<host::DeviceInstance> open(DWORD, DWORD, DWORD& error) override {
        UsbCtlr::EnumDevices(false, true, false);
        error = ERROR_FILE_NOT_FOUND;
        return nullptr;
    }
};

TEST_F(RegistryTest, NestedScanOnTheSameThreadLeavesAtOnce) {
    host::registerStreamDriver(L"DSP1:", std::make_shared<ReenteringDriver>());
    enumerate();
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices already active, leaving now..."), 9);
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices() done"), 1);
    // The flag is down again afterwards.
    host::registerStreamDriver(L"DSP1:", bus);
    enumerate();
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices already active"), 9);
}

// No virtual time passes between the scans: retired controllers do not wait
// for a quiet minute, which clients that keep connecting never leave.
TEST_F(RegistryTest, RetiredBoardIsLetGoAndBootedAgainByTheScanAfterItsFaultClears) {
    auto board = attach(sim::BoardKind::T1);
    enumerate();
    board->reportState(10);
    enumerate();
    EXPECT_TRUE(logged(L"This board is being removed!(thread="));
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
    // The same scan found the board free again; its boot failed while the
    // fault lasted.
    EXPECT_EQ(loggedCount(L"EnumDevices:: Boot Fails"), 1);
    EXPECT_FALSE(board->held());

    board->clearReportedState();
    enumerate();
    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_TRUE(board->held());
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 0);
    EXPECT_EQ(loggedCount(L"Purging DeadCtlrs ... "), 1);
    EXPECT_EQ(loggedCount(L"~T1Ctlr Destructing"), 1);
    const BYTE payload[] = {1};
    BYTE reply[1] = {};
    int replyLength = 1;
    EXPECT_EQ(UsbCtlr::GetCtlr(0)->atomicGet(0x7E, payload, 1, 0x7E, reply, &replyLength), dspOk);
}

TEST_F(RegistryTest, RetiredControllerHeldBySessionsAnswers11AndGoesWithTheLastOne) {
    auto board = attach(sim::BoardKind::RF);
    enumerate();
    RFCtlr* held = UsbCtlr::GetRFCtlrForTest(0);
    UsbCtlr::PinSession(held);
    UsbCtlr::PinSession(held);
    board->reportState(10);
    enumerate();
    board->clearReportedState();
    enumerate();
    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_NE(UsbCtlr::GetRFCtlrForTest(0), held);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
    EXPECT_FALSE(logged(L"Purging DeadCtlrs"));

    // Raw packets too: the retired link no longer reaches the board.
    const BYTE frame[] = {2, 0, 0, 0};
    EXPECT_EQ(held->link->primitiveSendData(frame, 4), dspNoUsbComm);
    EXPECT_EQ(held->atomicSend(0x7E, frame, 1), dspNoUsbComm);
    EXPECT_NE(board->state(), 10) << "the packet reached the board";

    UsbCtlr::UnpinSession(held);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
    UsbCtlr::UnpinSession(held);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 0);
    EXPECT_EQ(loggedCount(L"Purging DeadCtlrs ... "), 1);
    EXPECT_EQ(loggedCount(L"aRFCtlr(Serial#1150000000) Destructing"), 1);
    // A registered controller stays when its session lets go.
    UsbCtlr::PinSession(UsbCtlr::GetRFCtlrForTest(0));
    UsbCtlr::UnpinSession(UsbCtlr::GetRFCtlrForTest(0));
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
}

TEST_F(RegistryTest, KillRetiresOnlyAControllerOfItsOwnKind) {
    attach(sim::BoardKind::T1);
    enumerate();
    T1Ctlr* t1 = UsbCtlr::GetT1CtlrForTest(0);
    UsbCtlr::KillRF(t1);
    UsbCtlr::KillEnet(t1);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_FALSE(t1->removing);

    UsbCtlr::KillT1(t1);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
    EXPECT_TRUE(t1->removing);
    EXPECT_TRUE(logged(L"UsbCtlr::KillT1 This board is being removed!(thread="));
    UsbCtlr::KillT1(t1);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
}

TEST_F(RegistryTest, BoardThatStopsAnsweringIsRetiredAndItsRequestsAnswer11) {
    attach(sim::BoardKind::T1);
    enumerate();
    T1Ctlr* t1 = UsbCtlr::GetT1CtlrForTest(0);
    ASSERT_NE(t1, nullptr);
    UsbCtlr::PinSession(t1);  // as its client's session does

    bus->detachAll(false);
    enumerate();
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_TRUE(t1->removing);
    EXPECT_TRUE(logged(L"This board is being removed!(thread="));
    EXPECT_TRUE(logged(L"CommPolicy_USB::ioFailure() -- Handle set to NULL"));
    const BYTE payload[] = {1};
    EXPECT_EQ(t1->atomicSend(1, payload, 1), dspNoUsbComm);

    // The link's failure asked for one more scan, on a thread of its own.
    UsbCtlr::WaitForDeviceChangeThreads();
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices() done"), 3);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 1);
    UsbCtlr::UnpinSession(t1);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 0);
}

TEST_F(RegistryTest, UnpluggedBoardIsRetiredAndRegisteredAgainWhenPluggedBackIn) {
    bus->setAnnounceChanges(true);
    auto board = attach(sim::BoardKind::RF);
    UsbCtlr::WaitForDeviceChangeThreads();
    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(board->bootCount(), 1u);

    bus->detach(bus->slotOf(*board));
    UsbCtlr::WaitForDeviceChangeThreads();
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_TRUE(logged(L"This board is being removed!(thread="));

    auto again = attach(sim::BoardKind::RF);
    UsbCtlr::WaitForDeviceChangeThreads();
    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(UsbCtlr::GetDeadCtlrCount(), 0);
    EXPECT_EQ(again->bootCount(), 1u);
    EXPECT_TRUE(again->held());
}

TEST_F(RegistryTest, OtherDeviceEventsAreIgnored) {
    bool called = false;
    EXPECT_EQ(UsbCtlr::OnDeviceChange(7, 0, [&] { called = true; }), TRUE_);
    UsbCtlr::WaitForDeviceChangeThreads();
    EXPECT_FALSE(called);
    EXPECT_FALSE(logged(L"Handle["));
}

TEST_F(RegistryTest, DeviceChangeThreadScansAtHighestPriorityThenCallsBack) {
    attach(sim::BoardKind::Analog);
    std::atomic<int> calls{0};
    std::atomic<int> priority{-1};
    std::atomic<int> countSeen{-1};
    std::atomic<bool> otherThread{false};
    const auto testThread = std::this_thread::get_id();
    EXPECT_EQ(UsbCtlr::OnDeviceChange(DBT_DEVICEARRIVAL, 0,
                                      [&] {
                                          ++calls;
                                          priority =
                                              host::GetThreadPriority(host::GetCurrentThread());
                                          countSeen = UsbCtlr::GetCtlrCount();
                                          otherThread = std::this_thread::get_id() != testThread;
                                      }),
              TRUE_);
    UsbCtlr::WaitForDeviceChangeThreads();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(priority.load(), host::THREAD_PRIORITY_HIGHEST);
    EXPECT_EQ(countSeen.load(), 1) << "called before the scan ended";
    EXPECT_TRUE(otherThread.load());

    // The callback stays for later events that bring none of their own.
    UsbCtlr::OnDeviceChange(DBT_DEVICEREMOVECOMPLETE, 0, nullptr);
    UsbCtlr::WaitForDeviceChangeThreads();
    EXPECT_EQ(calls.load(), 2);
    EXPECT_EQ(loggedCount(L"UsbCtlr::EnumDevices() done"), 2);
}

TEST_F(RegistryTest, ShutdownDeletesEveryControllerAndLocksTheRegistryForGood) {
    testing_support::DebugCapture debug;
    attach(sim::BoardKind::T1);
    attach(sim::BoardKind::Analog);
    auto rf = attach(sim::BoardKind::RF);
    enumerate();
    UsbCtlr::KillRF(UsbCtlr::GetRFCtlrForTest(0));

    UsbCtlr::Shutdown();

    EXPECT_TRUE(debug.contains(L"UsbCtlr::Shutdown()!"));
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_TRUE(logged(L"UsbCtlr::Shutdown() entered, have 2 ctlrs"));
    const int t1Gone = logIndex(L"~T1Ctlr Destructing");
    const int analogGone = logIndex(L"~AnalogCtlr Destructing");
    const int purge = logIndex(L"Purging DeadCtlrs ... ");
    const int rfGone = logIndex(L"aRFCtlr(Serial#1150000000) Destructing");
    EXPECT_LT(logIndex(L"Shutdown() entered"), t1Gone);
    EXPECT_LT(t1Gone, analogGone);
    EXPECT_LT(analogGone, purge);
    EXPECT_LT(purge, rfGone);
    EXPECT_FALSE(rf->held());

    bool lockedByOther = true;
    std::thread other([&] {
        lockedByOther = !UsbCtlr::registryLock->try_lock();
        if (!lockedByOther) UsbCtlr::registryLock->unlock();
    });
    other.join();
    EXPECT_TRUE(lockedByOther);
}

}  // namespace
}  // namespace boardtest
