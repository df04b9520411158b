// Power-fail handling: the event that "DIO1:" sets for line 17, the thread
// that waits for it, and the shutdown it carries out on the simulated unit.
#include <atomic>
#include <regex>

#include "app/dialog_core.h"
#include "device/power_fail.h"
#include "platform/coredll.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/modules.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "server/tovel_ctlr.h"
#include "sim/dio_block.h"
#include "sim/watchdog_unit.h"
#include "sim/watchdog_vendor_library.h"
#include "tests/dialog/dialog_fixture.h"

namespace {

using dialog_test::DialogTest;
using dialog_test::eventually;
using dialog_test::RecordingControls;

// A core library whose file-system function records its flags before
// doing what the host's does.
std::atomic<int> quiesceCalls{0};
std::atomic<DWORD> quiesceFlags{0};
void recordingFileSystemPowerFunction(DWORD flags) {
    ++quiesceCalls;
    quiesceFlags = flags;
    host::FileSystemPowerFunction(flags);
}
void installRecordingCoreLibrary() {
    quiesceCalls = 0;
    quiesceFlags = 0;
    host::registerModule(host::kCoreLibraryName,
                         {{host::kFileSystemPowerEntry,
                           reinterpret_cast<host::FARPROC>(&recordingFileSystemPowerFunction)}});
}

// The debug texts that the power-fail handling wrote, in order.
std::vector<std::wstring> powerFailLines(const testing_support::DebugCapture& debug) {
    static const std::wregex mine(
        L"^\\d+: (CTovelDlg::PowerFailThread|Power Fail|Calling FSPwrFcn|File System)[\\s\\S]*");
    std::vector<std::wstring> lines;
    for (const auto& text : debug.texts())
        if (std::regex_match(text, mine) || text.find(L"TRIGGER") != std::wstring::npos)
            lines.push_back(text);
    return lines;
}

int countOf(const testing_support::DebugCapture& debug, const std::wstring& fragment) {
    int n = 0;
    for (const auto& text : debug.texts())
        if (text.find(fragment) != std::wstring::npos) ++n;
    return n;
}

// A power-fail thread of its own, stopped and waited for at the end.
class PowerFailThreadTest : public DialogTest {
  protected:
    void start() {
        handler_ = std::make_unique<PowerFailHandler>([this] {
            ++controllerStops_;
            if (onStop_) onStop_();
        });
        thread_ = host::CreateThread([h = handler_.get()] { return h->PowerFailThread(); });
        ASSERT_NE(thread_, NULL_HANDLE);
    }
    bool waiting() {
        return eventually([this] { return debug_.contains(L"PowerFailThread - Enter Loop"); });
    }
    void TearDown() override {
        if (handler_) {
            handler_->stop();
            host::WaitForSingleObject(thread_, INFINITE);
            host::CloseHandle(thread_);
            handler_->clearWake();
        }
        DialogTest::TearDown();
    }
    // A rising edge on line 17, as the board signals a power failure.
    void powerFails() {
        dio_->setInput(kPowerFailLine, false);
        dio_->setInput(kPowerFailLine, true);
    }

    std::shared_ptr<sim::DioBlock> dio_ = sim::installDioBlock();
    std::function<void()> onStop_;
    std::unique_ptr<PowerFailHandler> handler_;
    HANDLE thread_ = NULL_HANDLE;
};

TEST_F(PowerFailThreadTest, TheEventArmsLine17OnceAndIsNamedAfterIt) {
    const HANDLE event = getPowerFailEvent();
    ASSERT_NE(event, NULL_HANDLE);
    EXPECT_EQ(getPowerFailEvent(), event);
    EXPECT_EQ(dio_->interruptMask(), 0xFFFDFFFFu);
    EXPECT_EQ(dio_->armedRising(), 0x00020000u);
    EXPECT_EQ(dio_->armedFalling(), 0u);
    // The same named event as the driver's.
    const HANDLE same = host::CreateEventW(false, false, L"DIOInt17");
    EXPECT_EQ(host::GetLastError(), ERROR_ALREADY_EXISTS);
    host::CloseHandle(same);
}

TEST_F(PowerFailThreadTest, WithoutTheDriverThereIsNoEventAndTheThreadEnds) {
    sim::uninstallDioBlock();
    EXPECT_EQ(getPowerFailEvent(), NULL_HANDLE);
    start();
    EXPECT_EQ(host::WaitForSingleObject(thread_, 5000), WAIT_OBJECT_0);
    EXPECT_TRUE(testing_support::logContains(L"Unable to create power fail event!!!"));
    EXPECT_FALSE(debug_.contains(L"Enter Loop"));
}

TEST_F(PowerFailThreadTest, WithoutASignalTheThreadWritesNothingMore) {
    start();
    ASSERT_TRUE(waiting());
    EXPECT_EQ(host::CeGetThreadPriority(thread_), kPowerFailPriority);
    for (int i = 0; i < 5; ++i) {
        monitorsWaiting();
        time_->advance(2000);
    }
    EXPECT_EQ(powerFailLines(debug_).size(), 1u);
    EXPECT_FALSE(powerFailShutDown());
    EXPECT_EQ(controllerStops_.load(), 0);
}

TEST_F(PowerFailThreadTest, TwoSignalsGiveOneShutdownAndOneIgnoredLine) {
    onKtx();
    sim::VendorWatchdogLibrary library;
    installRecordingCoreLibrary();
    // The second signal comes while the first is being handled.
    onStop_ = [this] { powerFails(); };
    start();
    ASSERT_TRUE(waiting());
    powerFails();
    EXPECT_EQ(resetCode(), sim::kWatchdogResetExitCode);
    ASSERT_TRUE(eventually([this] { return debug_.contains(L"Ignored, already shut down."); }));

    EXPECT_TRUE(powerFailShutDown());
    EXPECT_EQ(controllerStops_.load(), 1);
    EXPECT_EQ(quiesceCalls.load(), 1);
    EXPECT_EQ(quiesceFlags.load(), host::FSNOTIFY_POWER_OFF);
    EXPECT_EQ(countOf(debug_, L"Power Fail Interrupt! Shuting down...\n"), 1);
    EXPECT_EQ(countOf(debug_, L"Power Fail Interrupt! Ignored, already shut down.\n"), 1);
    EXPECT_EQ(countOf(debug_, L"WatchDog::WatchDog -- TRIGGER!!!\n"), 1);
}

TEST_F(PowerFailThreadTest, WithoutTheCoreLibraryNothingIsQuiescedAndTheWatchdogIsNotFired) {
    onKtx();
    sim::VendorWatchdogLibrary library;
    host::unregisterModule(host::kCoreLibraryName);
    start();
    ASSERT_TRUE(waiting());
    powerFails();
    ASSERT_TRUE(eventually([this] { return debug_.contains(L"Calling FSPwrFcn!"); }));
    time_->advance(10000);
    EXPECT_EQ(resetCode(std::chrono::milliseconds(100)), 0);
    EXPECT_FALSE(debug_.contains(L"File System Quiesced."));
    EXPECT_FALSE(debug_.contains(L"TRIGGER"));
    EXPECT_TRUE(powerFailShutDown());
    // Later signals are still only ignored.
    powerFails();
    ASSERT_TRUE(eventually([this] { return debug_.contains(L"Ignored, already shut down."); }));
    EXPECT_EQ(controllerStops_.load(), 1);
}

TEST_F(PowerFailThreadTest, AMissingFileSystemFunctionStillLeadsToTheReset) {
    onKtx();
    sim::VendorWatchdogLibrary library;
    host::registerModule(host::kCoreLibraryName, {});
    start();
    ASSERT_TRUE(waiting());
    powerFails();
    EXPECT_EQ(resetCode(), sim::kWatchdogResetExitCode);
    EXPECT_TRUE(debug_.contains(L"File System Quiesced.\n"));
}

TEST_F(PowerFailThreadTest, AFailingWaitIsReportedWithoutSpinning) {
    start();
    ASSERT_TRUE(waiting());
    // The event handle becomes unusable under the thread.
    host::CloseHandle(getPowerFailEvent());
    time_->advance(2000);  // ends the wait in progress
    const std::wstring failed =
        L"Power Fail Interrupt - WaitForSingleObject returns 4294967295...\n";
    ASSERT_TRUE(eventually([&] { return countOf(debug_, failed) == 1; }));
    monitorsWaiting();
    EXPECT_EQ(countOf(debug_, failed), 1);  // it pauses on the clock
    time_->advance(2000);
    ASSERT_TRUE(eventually([&] { return countOf(debug_, failed) == 2; }));
    resetPowerFailForTest();  // forget the closed handle
}

TEST(CoreLibrary, TheHostsFileSystemFunctionIsThere) {
    host::unregisterModule(host::kCoreLibraryName);
    host::ensureCoreLibrary();
    HANDLE core = host::LoadLibraryW(L"COREDLL.DLL");
    ASSERT_NE(core, NULL_HANDLE);
    auto fn = host::procAs<host::FileSystemPowerFn>(
        host::GetProcAddressW(core, "FileSystemPowerFunction"));
    ASSERT_NE(fn, nullptr);
    fn(host::FSNOTIFY_POWER_OFF);  // flushes, and returns
    fn(host::FSNOTIFY_POWER_ON);
    host::FreeLibrary(core);
    host::unregisterModule(host::kCoreLibraryName);
}

// ---- The dialog starts the thread on KTX only.

TEST_F(DialogTest, OnVbqOrAnUnreadablePlatformNeitherTheEventNorTheThreadIsMade) {
    for (const char* platform : {"", "VBQ"}) {
        SCOPED_TRACE(platform);
        resetPlatformForTest();
        if (*platform) onVbq();
        auto dio = sim::installDioBlock();
        {
            DialogCore core(fakeEnvironment());
            RecordingControls controls;
            core.OnInitDialog(controls);
            EXPECT_EQ(core.powerFailThread(), NULL_HANDLE);
        }
        EXPECT_EQ(getPlatform(), *platform ? PlatformVbq : PlatformUnreadable);
        EXPECT_EQ(dio->armedRising(), 0u);
        EXPECT_EQ(dio->interruptMask(), 0u);
        const HANDLE event = host::CreateEventW(false, false, L"DIOInt17");
        EXPECT_NE(host::GetLastError(), ERROR_ALREADY_EXISTS);
        host::CloseHandle(event);
        EXPECT_FALSE(debug_.contains(L"PowerFailThread"));
    }
}

// ---- On the simulated unit, end to end.

TEST_F(DialogTest, PowerFailureStopsTheControllerQuiescesAndResetsTheUnit3sLater) {
    onKtx();
    auto dio = sim::installDioBlock();
    sim::VendorWatchdogLibrary watchdogHardware;
    installRecordingCoreLibrary();
    TovelCtlr* ctlr = TovelCtlr::createInstance(TovelCtlr::ThreadSet::none());
    ASSERT_TRUE(ctlr->running());
    {
        DialogCore core;  // the unit's own environment: LEDs on "DIO1:", the controller
        RecordingControls controls;
        core.OnInitDialog(controls);
        ASSERT_TRUE(
            eventually([this] { return debug_.contains(L"PowerFailThread - Enter Loop"); }));

        const DWORD failedAt = time_->tickCount();
        dio->setInput(kPowerFailLine, true);
        ASSERT_EQ(resetCode(), sim::kWatchdogResetExitCode);

        EXPECT_FALSE(ctlr->running());
        EXPECT_EQ(quiesceCalls.load(), 1);
        EXPECT_EQ(quiesceFlags.load(), host::FSNOTIFY_POWER_OFF);
        // The watchdog fires after the 3-s pause and resets the unit about 1 ms later.
        EXPECT_GE(resetTick_.load(), failedAt + 3000);
        EXPECT_LE(resetTick_.load(), failedAt + 3100);

        const auto at = [failedAt](const wchar_t* text) {
            return host::wformat(L"%u: %s", failedAt, text);
        };
        const std::vector<std::wstring> lines = powerFailLines(debug_);
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(lines[0].substr(lines[0].find(L':')),
                  L": CTovelDlg::PowerFailThread - Enter Loop...\n");
        EXPECT_EQ(lines[1], at(L"Power Fail Interrupt! Shuting down...\n"));
        EXPECT_EQ(lines[2], at(L"Calling FSPwrFcn!\n"));
        EXPECT_EQ(lines[3], at(L"File System Quiesced.\n"));
        EXPECT_EQ(lines[4], L"WatchDog::WatchDog -- TRIGGER!!!\n");
        const std::wstring all = debug_.all();
        EXPECT_LT(all.find(L"TRIGGER"), all.find(L"SIMULATED HARDWARE WATCHDOG EXPIRED"));
    }
    TovelCtlr::deleteInstance();
}

}  // namespace
