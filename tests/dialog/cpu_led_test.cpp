// The CPU/LED thread: which lines the LEDs use on each board, the load value
// from one measuring window, and the front-panel blink rate that follows the
// client sessions.
#include <condition_variable>
#include <tuple>

#include "app/led_outputs.h"
#include "app/panel_readout.h"
#include "panel/digital_output.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "server/tovel_ctlr.h"
#include "sim/dio_block.h"
#include "tests/dialog/dialog_fixture.h"

namespace {

using dialog_test::DialogTest;
using dialog_test::eventually;
using dialog_test::RecordingControls;
using testing_support::ClockPusher;

std::vector<std::wstring> ledLines(const testing_support::DebugCapture& debug) {
    std::vector<std::wstring> lines;
    for (const auto& text : debug.texts())
        if (text.find(L"GrnLED") != std::wstring::npos ||
            text.find(L"FrontPanelLED") != std::wstring::npos)
            lines.push_back(text);
    return lines;
}

// A blinker's mode, off and on times.
template <typename Blinker>
std::tuple<int, DWORD, DWORD> timing(const Blinker* b) {
    return {b->mode(), b->offTime(), b->onTime()};
}

// ---- LED set-up per platform answer.

TEST_F(DialogTest, LedLinesFollowThePlatformAndAnUnreadableOneIsTakenForKtx) {
    struct Case {
        const char* platform;  // nullptr: no "\\Platform" key at all
        const wchar_t* board;
        const char* report;  // as "tovelsim leds" shows it
    };
    const char* const ktx =
        "ok green=blink line=6 lit=no on_ms=250 off_ms=500; front_a=off line=0 lit=no; "
        "front_b=blink line=14 lit=no on_ms=500 off_ms=500";
    const Case cases[] = {
        {nullptr, L"KTX", ktx},
        {"Kestrix Platform", L"KTX", ktx},
        {"VBQ", L"VBQ",
         "ok green=blink line=19 lit=no on_ms=250 off_ms=500; front_a=off line=14 lit=no; "
         "front_b=blink line=15 lit=no on_ms=500 off_ms=500"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.platform ? c.platform : "unreadable");
        resetPlatformForTest();
        if (c.platform) onPlatform(c.platform);
        testing_support::DebugCapture debug;
        DialogCore core(fakeEnvironment());
        core.setUpLeds();
        const std::wstring init = host::wformat(L"  Init (%s) ", c.board);
        EXPECT_EQ(ledLines(debug),
                  (std::vector<std::wstring>{init + L"GrnLED\n", init + L"FrontPanelLED\n",
                                             L"  Start Blink GrnLED\n",
                                             L"  Start Blink FrontPanelLED\n"}));
        // The blinker threads may have lit a line meanwhile: compare the rest.
        std::string report = ledsReport();
        for (auto at = report.find("lit=yes"); at != std::string::npos; at = report.find("lit=yes"))
            report.replace(at, 7, "lit=no");
        EXPECT_EQ(report, c.report);
    }
}

TEST_F(DialogTest, ABlinkerWhoseLineCannotBeHadIsSkipped) {
    onVbq();
    auto env = fakeEnvironment();
    env.makeLedLine = [](int line) {
        return line == 19 ? nullptr : std::make_unique<dialog_test::FakeLine>(line);  // no green
    };
    DialogCore core(env);
    core.setUpLeds();
    EXPECT_EQ(core.greenBlinker(), nullptr);
    ASSERT_NE(core.frontPanelBlinker(), nullptr);
    EXPECT_FALSE(debug_.contains(L"  Start Blink GrnLED\n"));
    EXPECT_TRUE(debug_.contains(L"  Start Blink FrontPanelLED\n"));
    const LedStates states = core.ledStates();
    EXPECT_TRUE(states.present);
    EXPECT_FALSE(states.green);
}

TEST_F(DialogTest, TheLedsBlinkOnTheSimulatedDigitalOutputs) {
    onVbq();
    auto dio = sim::installDioBlock();
    auto env = DialogCore::Environment::unit();
    env.cpuTimes = fakeEnvironment().cpuTimes;
    DialogCore core(env);
    core.setUpLeds();
    // Lines 19, 14 and 15 are outputs now, all dark to begin with.
    ASSERT_TRUE(eventually([&] { return (dio->direction() & 0x0008C000u) == 0x0008C000u; }));
    // A blinker whose first pass came before its mode was set pauses 50 ms
    // in mode 0. Then the green LED is lit for 250 ms and the front panel's
    // line B for 500 ms; line A stays dark in mode 6.
    time_->advance(50);
    // An output records its level just after it drives the line.
    ASSERT_TRUE(eventually([&] {
        const LedStates lit = core.ledStates();
        return dio->output(19) && dio->output(15) && lit.green && lit.frontB;
    }));
    EXPECT_FALSE(dio->output(14));
    EXPECT_FALSE(core.ledStates().frontA);
    time_->advance(250);
    ASSERT_TRUE(eventually([&] { return !dio->output(19); }));
    EXPECT_TRUE(dio->output(15));  // still within its 500 ms
    time_->advance(250);
    ASSERT_TRUE(eventually([&] { return !dio->output(15); }));
    EXPECT_EQ(ledOutput(15), ledOutput(15));  // one output per line for the process
}

// ---- The load value.

TEST(LoadValue, IsTheMachinesBusyShareBetweenTwoReadings) {
    using host::CpuTimes;
    struct Case {
        const char* what;
        std::optional<CpuTimes> start, end;
        int load;
    };
    const Case cases[] = {
        {"idle machine", CpuTimes{100, 1000}, CpuTimes{100, 1040}, 0},
        {"every core busy", CpuTimes{100, 1000}, CpuTimes{140, 1040}, 100},
        {"one core of two busy", CpuTimes{100, 1000}, CpuTimes{120, 1040}, 50},
        {"rounded to the nearest", CpuTimes{0, 0}, CpuTimes{1, 3}, 33},
        {"rounded up", CpuTimes{0, 0}, CpuTimes{2, 3}, 67},
        {"no tick in the window", CpuTimes{5, 10}, CpuTimes{5, 10}, 0},
        {"counters went back", CpuTimes{50, 1000}, CpuTimes{10, 900}, 0},
        {"busy beyond total is capped", CpuTimes{0, 0}, CpuTimes{50, 40}, 100},
        {"no first reading", std::nullopt, CpuTimes{10, 20}, 0},
        {"no second reading", CpuTimes{10, 20}, std::nullopt, 0},
        {"beyond 32 bits", CpuTimes{0xFFFFFFF0ull, 0x1FFFFFFF0ull},
         CpuTimes{0x100000010ull, 0x200000030ull}, 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(DialogCore::loadBetween(c.start, c.end), c.load);
    }
}

class MeasuringPass : public DialogTest {
  protected:
    // One pass in which the machine spends `busy` of `total` counter ticks
    // busy; answers the virtual time the pass took.
    DWORD passWith(DialogCore& core, std::uint64_t busy, std::uint64_t total = 40) {
        const DWORD start = time_->tickCount();
        {
            ClockPusher driver(*time_, 5);
            busyTicks_ += busy;
            totalTicks_ += total;
            core.cpuMonitorPass();
        }
        return time_->tickCount() - start;
    }
};

TEST_F(MeasuringPass, EachPassShowsTheLoadOfItsWindow) {
    onKtx();
    busyTicks_ = 5000;
    totalTicks_ = 123456;
    DialogCore core(fakeEnvironment());
    RecordingControls controls;
    core.setUpLeds();
    core.beginMeasuring();

    EXPECT_GE(passWith(core, 0), 200u);  // the window runs on the host clock
    EXPECT_EQ(core.cpuUsage(), 0);
    core.dispatchMessages(controls);
    ASSERT_EQ(controls.positions.size(), 1u);
    EXPECT_EQ(controls.positions.back(), 0);

    passWith(core, 40);
    EXPECT_EQ(core.cpuUsage(), 100);
    passWith(core, 28);
    EXPECT_EQ(core.cpuUsage(), 70);
    core.dispatchMessages(controls);
    // The bar shows the value stored when the message is handled.
    EXPECT_EQ(controls.positions.back(), 70);
}

// ---- The front-panel blink rate.

TEST_F(MeasuringPass, FrontPanelBlinksFasterWhileASessionIsActive) {
    onKtx();
    DialogCore core(fakeEnvironment());
    core.setUpLeds();
    core.beginMeasuring();
    const DualLedBlinker* frontPanel = core.frontPanelBlinker();
    ASSERT_NE(frontPanel, nullptr);

    passWith(core, 0);
    EXPECT_EQ(timing(frontPanel), std::make_tuple(6, 500u, 500u));
    sessionActive_ = true;
    passWith(core, 0);
    EXPECT_EQ(timing(frontPanel), std::make_tuple(6, 200u, 200u));
    // Within one pass of the last session becoming done or hung.
    sessionActive_ = false;
    passWith(core, 0);
    EXPECT_EQ(timing(frontPanel), std::make_tuple(6, 500u, 500u));
}

TEST_F(MeasuringPass, TheUnitsSessionTestNeitherMakesNorNeedsAController) {
    onKtx();
    auto env = fakeEnvironment();
    env.anySessionActive = DialogCore::Environment::unit().anySessionActive;
    DialogCore core(env);
    core.setUpLeds();
    core.beginMeasuring();
    passWith(core, 0);
    EXPECT_EQ(TovelCtlr::current(), nullptr);
    EXPECT_EQ(core.frontPanelBlinker()->onTime(), 500u);

    // A controller without sessions: still the idle rate.
    TovelCtlr* ctlr = TovelCtlr::createInstance(TovelCtlr::ThreadSet::none());
    ASSERT_NE(ctlr, nullptr);
    passWith(core, 0);
    EXPECT_EQ(core.frontPanelBlinker()->onTime(), 500u);
    TovelCtlr::deleteInstance();
}

// ---- The initialisation.

TEST_F(DialogTest, InitialisationSetsTheRangeAndStartsTheThreadAtIdlePriority) {
    onVbq();
    DialogCore core(fakeEnvironment());
    RecordingControls controls;
    EXPECT_TRUE(core.OnInitDialog(controls));
    EXPECT_EQ(controls.rangeLow, 0);
    EXPECT_EQ(controls.rangeHigh, 100);
    ASSERT_NE(core.cpuMonitorThread(), NULL_HANDLE);
    EXPECT_EQ(host::GetThreadPriority(core.cpuMonitorThread()), host::THREAD_PRIORITY_IDLE);
    EXPECT_EQ(core.powerFailThread(), NULL_HANDLE);
    // The thread sets up the LEDs, then measures on the host clock.
    ASSERT_TRUE(eventually([&] { return core.frontPanelBlinker() != nullptr; }));
    {
        ClockPusher driver(*time_, 5);
        ASSERT_TRUE(eventually([&] { return core.messages().pending() > 0; }));
    }
    core.dispatchMessages(controls);
    ASSERT_FALSE(controls.positions.empty());
    EXPECT_EQ(controls.positions.back(), 0);  // the stand-in counters never move: no load
}

TEST_F(DialogTest, ADialogEndingWhileItsThreadIsHeldLeavesTheThreadToEndLater) {
    onVbq();
    struct Shared {
        std::mutex mutex;
        std::condition_variable opened;
        bool open = false;
        std::atomic<bool> held{false};
        std::atomic<int> linesAlive{0};
    };
    auto shared = std::make_shared<Shared>();
    struct CountedLine : dialog_test::FakeLine {
        CountedLine(int line, std::shared_ptr<Shared> s) : FakeLine(line), shared(std::move(s)) {
            ++shared->linesAlive;
        }
        ~CountedLine() override { --shared->linesAlive; }
        std::shared_ptr<Shared> shared;
    };
    auto env = fakeEnvironment();
    env.makeLedLine = [shared](int line) { return std::make_unique<CountedLine>(line, shared); };
    // The session test waits, as it would in a session lock that never comes free.
    env.anySessionActive = [shared] {
        shared->held = true;
        std::unique_lock<std::mutex> lock(shared->mutex);
        shared->opened.wait(lock, [&] { return shared->open; });
        return false;
    };
    {
        ClockPusher driver(*time_, 5);
        auto core = std::make_unique<DialogCore>(env);
        RecordingControls controls;
        core->OnInitDialog(controls);
        ASSERT_TRUE(eventually([&] { return shared->held.load(); }));
        core.reset();  // returns after its bounded wait
    }
    EXPECT_EQ(shared->linesAlive.load(), 3);  // the thread still has its LEDs
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->open = true;
    }
    shared->opened.notify_all();
    // Let go, the thread ends and its LEDs with it.
    EXPECT_TRUE(eventually([&] { return shared->linesAlive.load() == 0; }));
}

}  // namespace
