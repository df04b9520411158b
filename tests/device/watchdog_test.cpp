#include <array>
#include <vector>

#include "platform/physmem.h"

#include "sim/watchdog_os_timer.h"
#include "sim/watchdog_vendor_library.h"
#include "tests/device/watchdog_fixture.h"

namespace {

using sim::OsTimerBlock;
using sim::VendorWatchdogLibrary;
using Lines = std::vector<std::wstring>;

constexpr DWORD kTicks127s = 468172800;

// --- KTX: the vendor library ---------------------------------------------

TEST_F(KtxWatchDog, SingletonArmsTheVendorWatchdogWith127000Ms) {
    VendorWatchdogLibrary library;
    WatchDog* dog = WatchDog::Singleton();
    EXPECT_TRUE(dog->armed());
    EXPECT_EQ(dog->interval(), 127000u);
    auto calls = library.calls();
    EXPECT_EQ(calls.setTime, 1);
    EXPECT_EQ(calls.lastTimeMs, 127000u);
    EXPECT_EQ(calls.start, 1);
    EXPECT_EQ(debug_.texts(), (Lines{L"WatchDog::WatchDog -- KTX! m_interval=127000\n",
                                     L"WatchDog::WatchDog -- ADSStartWatchDog done\n"}));

    EXPECT_EQ(WatchDog::Singleton(), dog);
    EXPECT_EQ(library.calls().start, 1);
}

TEST_F(KtxWatchDog, IntervalAbove127SecondsIsCappedAndServiceCallsTheVendorEntry) {
    VendorWatchdogLibrary library;
    WatchDog dog(200);
    EXPECT_EQ(dog.interval(), 127000u);
    EXPECT_EQ(library.calls().lastTimeMs, 127000u);
    EXPECT_EQ(debug_.texts(),
              (Lines{L"WatchDog::WatchDog -- KTX! interval of 200 capped at IMX31 max of 127!!\n",
                     L"WatchDog::WatchDog -- KTX! m_interval=127000\n",
                     L"WatchDog::WatchDog -- ADSStartWatchDog done\n"}));
    WatchDog shorter(30);
    EXPECT_EQ(library.calls().lastTimeMs, 30000u);
    shorter.service();
    shorter.service();
    EXPECT_EQ(library.calls().service, 2);
}

TEST_F(KtxWatchDog, TriggerRestartsWithOneMillisecond) {
    VendorWatchdogLibrary library({}, /*monitor=*/false);
    WatchDog dog(127);
    const DWORD before = host::GetTickCount();
    dog.trigger();
    auto calls = library.calls();
    EXPECT_EQ(calls.start, 2);
    EXPECT_EQ(calls.setTime, 2);
    EXPECT_EQ(calls.lastTimeMs, 1u);
    EXPECT_EQ(host::GetTickCount() - before, 10u);  // it sleeps 10 ms
    EXPECT_TRUE(debug_.contains(L"WatchDog::WatchDog -- TRIGGER!!!\n"));
}

TEST_F(KtxWatchDog, MissingLibraryLeavesItUnarmed) {
    WatchDog dog(127);
    EXPECT_FALSE(dog.armed());
    EXPECT_EQ(debug_.texts(), (Lines{L"WatchDog::WatchDog -- KTX! m_interval=127000\n",
                                     L"WatchDog::WatchDog -- LoadLibrary FAILS! Aborting\n"}));
    dog.service();
    dog.trigger();  // nothing to call; must not crash
}

// A missing entry point disarms the watchdog (all but the service entry), and
// no entry is called after the missing one.
TEST_F(KtxWatchDog, MissingEntriesCallNothingAfterThem) {
    using Calls = std::array<int, 3>;  // set time, start, service
    const struct {
        VendorWatchdogLibrary::Entries entries;
        bool armed;
        Calls calls;
        const wchar_t* missing;  // the entry the last debug line names, or null
    } cases[] = {
        {{.setTime = false}, false, {0, 0, 0}, L"ADSSetWatchDogTime"},
        {{.start = false}, false, {1, 0, 0}, L"ADSStartWatchDog"},
        {{.service = false}, true, {1, 1, 0}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.calls));
        VendorWatchdogLibrary library(c.entries);
        WatchDog dog(127);
        EXPECT_EQ(dog.armed(), c.armed);
        if (c.missing) {
            EXPECT_EQ(debug_.texts().back(), L"WatchDog::WatchDog -- GetProcAddress '" +
                                                 std::wstring(c.missing) + L"' FAILS! Aborting\n");
        }
        dog.service();
        if (!c.armed) dog.trigger();
        const auto calls = library.calls();
        EXPECT_EQ((Calls{calls.setTime, calls.start, calls.service}), c.calls);
    }
}

// --- VBQ: the operating-system timer registers ----------------------------

TEST_F(VbqWatchDog, SingletonSetsMatch3127SecondsAheadAndEnablesTheReset) {
    OsTimerBlock timer(5000, /*monitor=*/false);
    timer.write(OsTimerBlock::OIER, 0x1);
    WatchDog* dog = WatchDog::Singleton();
    EXPECT_TRUE(dog->armed());
    EXPECT_EQ(dog->interval(), kTicks127s);
    EXPECT_EQ(timer.read(OsTimerBlock::OSMR3), 5000u + kTicks127s);
    EXPECT_EQ(timer.read(OsTimerBlock::OSSR), 8u);
    EXPECT_EQ(timer.read(OsTimerBlock::OIER), 0x9u);  // bit 3 added, others kept
    EXPECT_EQ(timer.read(OsTimerBlock::OWER), 1u);
    EXPECT_EQ(debug_.texts(), (Lines{L"WatchDog::WatchDog -- VBQ!\n"}));
}

TEST_F(VbqWatchDog, IntervalAbove1165SecondsIsCutToTheLargestThatFits) {
    OsTimerBlock timer(0, false);
    WatchDog dog(1166);
    EXPECT_EQ(dog.interval(), 1165u * 3686400u);
    EXPECT_EQ(debug_.texts(),
              (Lines{L"WatchDog::WatchDog -- VBQ!\n",
                     L"WatchDog::WatchDog interval 1166 exceeds max of 1165; set to max\r\n"}));
    WatchDog within(200);
    EXPECT_EQ(within.interval(), 737280000u);
    EXPECT_EQ(timer.read(OsTimerBlock::OSMR3), 737280000u);
    EXPECT_EQ(debug_.texts().size(), 3u);  // no second complaint
}

TEST_F(VbqWatchDog, ServiceMovesTheMatchAheadOfTheCurrentCounter) {
    OsTimerBlock timer(0, false);
    WatchDog dog(127);
    time_->advance(60000);
    timer.refresh();
    EXPECT_EQ(timer.read(OsTimerBlock::OSCR), 60u * 3686400u);
    dog.service();
    EXPECT_EQ(timer.read(OsTimerBlock::OSMR3), 60u * 3686400u + kTicks127s);
}

TEST_F(VbqWatchDog, TriggerSetsTheMatch3686TicksAhead) {
    OsTimerBlock timer(0, false);
    WatchDog dog(127);
    time_->advance(1234);
    timer.refresh();
    const DWORD counter = timer.read(OsTimerBlock::OSCR);
    dog.trigger();
    EXPECT_EQ(timer.read(OsTimerBlock::OSMR3), counter + 3686u);
    EXPECT_FALSE(debug_.contains(L"TRIGGER"));
}

TEST_F(VbqWatchDog, UnreadablePlatformTakesTheTimerPath) {
    root_.writeFile(L"\\registry.reg", "REGEDIT4\r\n");
    host::reloadRegistry();
    OsTimerBlock timer(0, false);
    VendorWatchdogLibrary library({}, false);
    WatchDog dog(127);
    EXPECT_EQ(getPlatform(), PlatformUnreadable);
    EXPECT_EQ(timer.read(OsTimerBlock::OSMR3), kTicks127s);
    EXPECT_EQ(library.calls().setTime, 0);
}

TEST_F(VbqWatchDog, MissingRegisterBlockLeavesItUnarmed) {
    WatchDog dog(127);
    EXPECT_FALSE(dog.armed());
    EXPECT_EQ(debug_.texts(),
              (Lines{L"WatchDog::WatchDog -- VBQ!\n",
                     L"\tMapPhysicalAddr : return false from VirtualCopy(). \r\n"}));
    dog.service();
    dog.trigger();  // no registers to write; must not crash
}

TEST_F(VbqWatchDog, DestructorReleasesTheMappingAndSaysSo) {
    OsTimerBlock timer(0, false);
    { WatchDog dog(127); }
    EXPECT_EQ(debug_.texts().back(), L"WatchDog::~WatchDog -- shouldn't get here!!!????\n");
    EXPECT_EQ(host::reservationCountForTest(), 0u);
}

}  // namespace
