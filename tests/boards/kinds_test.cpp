// The board kinds: their fixed answers, version replies, version checks,
// flash commands, and the start-up of a real kind (boot or not, throw).
#include "boards/analog_ctlr.h"
#include "boards/error_log.h"
#include "boards/ethernet_ctlr.h"
#include "boards/rf_ctlr.h"
#include "boards/t1_ctlr.h"
#include "boards/unknown_ctlr.h"
#include "platform/text.h"
#include "sim/firmware_table.h"
#include "tests/boards/board_fixture.h"

namespace boardtest {
namespace {

class KindTest : public BoardTest {
  protected:
    // A link on the lowest board that no handle holds.
    static std::unique_ptr<CommPolicy_USB> openLink() {
        return std::make_unique<CommPolicy_USB>(nullptr, openDriver());
    }

    // The controller of `kind` on a new link.
    static std::unique_ptr<UsbCtlr> makeCtlr(sim::BoardKind kind, bool boot, bool flash) {
        switch (kind) {
            case sim::BoardKind::T1:
                return std::make_unique<T1Ctlr>(openLink(), boot, flash);
            case sim::BoardKind::RF:
                return std::make_unique<RFCtlr>(openLink(), boot, flash);
            case sim::BoardKind::Analog:
                return std::make_unique<AnalogCtlr>(openLink(), boot, flash);
            default:
                return std::make_unique<EthernetCtlr>(openLink(), boot, flash);
        }
    }

    static std::wstring withAddress(const wchar_t* format, const void* object) {
        return host::wformat(format, logAddress(object));
    }
};

const std::vector<BYTE> kFlashPayload = {0, 0, 0, 0, 0x48, 0xAF, 0x49, 0x00};

struct KindCase {
    sim::BoardKind board;
    int kindNumber;
    const wchar_t* cofFile;
    const wchar_t* name;  // "%x": the controller
    const wchar_t* created;
    const wchar_t* destructed;
    const wchar_t* bootedVersion;
};

TEST_F(KindTest, EachKindBootsFromItsOwnImageAndNamesItself) {
    const KindCase cases[] = {
        {sim::BoardKind::T1, 2, L"t1.cof", L"aT1Ctlr(Serial#1050000000 this=%x)",
         L"T1Ctlr::T1Ctlr Created a T1Ctlr! (this=%x)", L"~T1Ctlr Destructing: this=%x", L"102.2"},
        {sim::BoardKind::RF, 1, L"rf.cof", L"aRFCtlr(Serial#1150000000)",
         L"RFCtlr::RFCtlr Created a RFCtlr!(this=%x)", L" Destructing: this=%x", L"53.3"},
        {sim::BoardKind::IP150, 2, L"ip.cof", L"aEthernetCtlr(Serial#1235000000 this=%x)",
         L"EthernetCtlr::EthernetCtlr Created a EthernetCtlr!(this=%x)",
         L"~EthernetCtlr Destructing: this=%x", L"99.6"},
        {sim::BoardKind::IP163, 2, L"ipg.cof", L"aEthernetCtlr(Serial#1245000000 this=%x)",
         L"EthernetCtlr::EthernetCtlr Created a EthernetCtlr!(this=%x)",
         L"~EthernetCtlr Destructing: this=%x", L"99.6"},
        {sim::BoardKind::Analog, 4, L"pots.cof", L"aAnalogCtlr(Serial#1350000000 this=%x)",
         L"AnalogCtlr::AnalogCtlr Created a AnalogCtlr!(this=%x)",
         L"~AnalogCtlr Destructing: this=%x", L"58.4"},
    };
    for (const KindCase& c : cases) {
        SCOPED_TRACE(c.cofFile);
        auto board = attach(c.board);
        auto ctlr = makeCtlr(c.board, true, false);
        const void* address = ctlr.get();
        const std::wstring name = withAddress(c.name, address);

        EXPECT_EQ(ctlr->kindNumber(), c.kindNumber);
        EXPECT_EQ(ctlr->getCofFileName(), c.cofFile);
        EXPECT_EQ(ctlr->getName(), name);
        EXPECT_TRUE(ctlr->ownsSerialNumber());
        EXPECT_TRUE(ctlr->hasExpectedHardwareVersion());
        EXPECT_EQ(ctlr->link->getOwner(), ctlr.get());
        EXPECT_EQ(board->bootCount(), 1u);
        EXPECT_EQ(ctlr->getCofVersionText(), c.bootedVersion);
        EXPECT_TRUE(ctlr->isCofVersionAccepted());
        EXPECT_TRUE(ctlr->isAlive());
        EXPECT_TRUE(logged(withAddress(c.created, address)));
        EXPECT_TRUE(logged(name + L"Attempting boot...(thread="));
        EXPECT_TRUE(logged(name + L"Boot successful (version " + c.bootedVersion + L")(thread="));

        ctlr.reset();
        EXPECT_TRUE(logged(name + withAddress(c.destructed, address) + L"(thread="));
        EXPECT_FALSE(board->held()) << "the link's handle was not closed";
        bus->detachAll(false);
    }
}

TEST_F(KindTest, VersionChecksFollowTheKindUnlessTheVersionIsOpen) {
    attach(sim::BoardKind::T1);
    attach(sim::BoardKind::IP150);
    T1Ctlr t1(openLink(), true, false);
    EthernetCtlr ip(openLink(), true, false);

    t1.cofMajor = 101;
    EXPECT_FALSE(t1.isCofVersionAccepted());
    ip.cofMinor = 5;
    EXPECT_FALSE(ip.isCofVersionAccepted());
    ip.cofMinor = 6;
    ip.cofMajor = 98;
    EXPECT_FALSE(ip.isCofVersionAccepted());

    acceptAnyCofVersion = true;
    EXPECT_TRUE(t1.isCofVersionAccepted());
    EXPECT_TRUE(ip.isCofVersionAccepted());
    acceptAnyCofVersion = false;

    t1.cofMajor = UsbCtlr::kUnknownVersion;
    EXPECT_TRUE(t1.isCofVersionAccepted());
}

TEST_F(KindTest, T1VersionBytesAreSigned) {
    acceptAnyCofVersion = true;
    sim::BoardSpec spec = sim::defaultBoardSpec(sim::BoardKind::T1);
    spec.defaultVersion = {0xFF, 0x80};
    auto board = attach(spec);
    T1Ctlr t1(openLink(), false, false);
    EXPECT_EQ(board->bootCount(), 0u);
    EXPECT_EQ(t1.cofMajor, 0xFFFF);
    EXPECT_EQ(t1.cofMinor, 0xFF80);
}

TEST_F(KindTest, VersionRepliesOfEachLayoutAreRead) {
    acceptAnyCofVersion = true;
    for (auto kind : {sim::BoardKind::RF, sim::BoardKind::IP150, sim::BoardKind::Analog}) {
        sim::BoardSpec spec = sim::defaultBoardSpec(kind);
        spec.defaultVersion = {201, 45};
        auto board = attach(spec);
        auto ctlr = makeCtlr(kind, false, false);
        EXPECT_EQ(ctlr->getCofVersionText(), L"201.45") << sim::kindName(kind);
        EXPECT_EQ(board->bootCount(), 0u);
        ctlr.reset();
        bus->detachAll(false);
    }
}

TEST_F(KindTest, OnlyTheNewIpBoardRefusesProgramsBelowMajor60) {
    acceptAnyCofVersion = true;
    installImage(L"ipg.cof", 59, 0);
    auto board = attach(sim::BoardKind::IP163);
    try {
        EthernetCtlr refused(openLink(), true, false);
        FAIL() << "a program of major 59 was accepted";
    } catch (dspStatus status) {
        EXPECT_EQ(status, dspRunning) << "the status read after the refusal is thrown";
    }
    EXPECT_TRUE(logged(L"Boot successful (version 59.0)"));
    EXPECT_TRUE(logged(L"This coff version is too old for new IP board!"));
    EXPECT_TRUE(logged(L"Boot Failed!! Status = 'Unknown or Not a DSP Error!'"));
    EXPECT_FALSE(board->held());

    installImage(L"ipg.cof", 60, 0);
    EthernetCtlr accepted(openLink(), true, false);
    EXPECT_EQ(accepted.getCofVersionText(), L"60.0");
    EXPECT_TRUE(accepted.isNewIpBoard()) << "its version reply carries the new-board mark";
    EXPECT_EQ(accepted.getBoardTypeText(), L"IP(163)") << "from its serial number";
    EXPECT_EQ(accepted.boot(), dspOk);

    // An older IP board takes any accepted program.
    installImage(L"ip.cof", 59, 0);
    attach(sim::BoardKind::IP150);
    EthernetCtlr older(openLink(), true, false);
    EXPECT_FALSE(older.isNewIpBoard());
    EXPECT_EQ(older.getBoardTypeText(), L"IP(150)");
    EXPECT_EQ(older.getCofVersionText(), L"59.0");
}

TEST_F(KindTest, FlashAfterBootSendsEachKindsCommand) {
    struct Flash {
        sim::BoardKind kind;
        BYTE opcode;
        const wchar_t* line;
    };
    const Flash flashes[] = {
        {sim::BoardKind::T1, 50, L"T1Ctlr::flashCOF version '102.2' success=1"},
        {sim::BoardKind::RF, 15, L"RFCtlr::flashCOF version '53.3' success=1"},
        {sim::BoardKind::IP150, 0, L"EthernetCtlr::flashCOF version '99.6' success=1"},
    };
    for (const Flash& f : flashes) {
        auto board = attach(f.kind);
        auto ctlr = makeCtlr(f.kind, true, true);
        EXPECT_TRUE(ctlr->flashed);
        EXPECT_EQ(board->commandCount(f.opcode), 1u);
        EXPECT_EQ(board->commandHistory().back().payload, kFlashPayload);
        EXPECT_TRUE(logged(f.line)) << f.line;
        ctlr.reset();
        bus->detachAll(false);
    }
}

TEST_F(KindTest, FlashOfABoardBeingRemovedFailsWithoutACommand) {
    auto board = attach(sim::BoardKind::T1);
    T1Ctlr t1(openLink(), true, false);
    t1.removing = true;
    EXPECT_FALSE(t1.flashCOF());
    EXPECT_FALSE(t1.flashed);
    EXPECT_EQ(board->commandCount(50), 0u);
    EXPECT_TRUE(logged(L"T1Ctlr::flashCOF version '102.2' success=0"));
}

TEST_F(KindTest, AnalogBoardIsNeverFlashed) {
    auto board = attach(sim::BoardKind::Analog);
    AnalogCtlr analog(openLink(), true, true);
    EXPECT_FALSE(analog.flashCOF());
    EXPECT_FALSE(analog.flashed);
    for (const auto& command : board->commandHistory())
        EXPECT_EQ(command.opcode, sim::versionQueryOpcode(sim::BoardKind::Analog));
    EXPECT_FALSE(logged(L"flashCOF"));
}

TEST_F(KindTest, FailedBootThrowsTheStatusReadAfterItAndClosesTheBoard) {
    auto board = attach(sim::BoardKind::T1);
    board->reportState(dspInReset);
    const int destructedBefore = loggedCount(L"~T1Ctlr Destructing");
    try {
        T1Ctlr t1(openLink(), true, false);
        FAIL() << "a board stuck in reset was registered";
    } catch (dspStatus status) {
        EXPECT_EQ(status, dspInReset);
    }
    EXPECT_TRUE(logged(L"Boot Failed!! Status = 'DSP Stuck in Reset state!'"));
    EXPECT_TRUE(logged(L"DSP doesn't appear to be running!"));
    EXPECT_TRUE(logged(L"CommPolicy_USB::~CommPolicy_USB() about to close handle"));
    EXPECT_EQ(loggedCount(L"~T1Ctlr Destructing"), destructedBefore)
        << "a controller that was never completed has no destructor line";
    EXPECT_FALSE(board->held());
}

TEST_F(KindTest, UnknownControllerAnswers) {
    attach(sim::BoardKind::RF);
    const HANDLE device = openDriver();
    UnknownCtlr unknown(device, false);
    EXPECT_TRUE(logged(host::wformat(
        L"UnknownCtlr::UnknownCtlr Created a UnknownCtlr! Assigned HidHandle #%x (this=%x)",
        static_cast<unsigned>(device), logAddress(&unknown))));
    EXPECT_EQ(unknown.kindNumber(), 0);
    EXPECT_EQ(unknown.getCofFileName(), L"???");
    EXPECT_TRUE(unknown.ownsSerialNumber());
    EXPECT_TRUE(unknown.hasExpectedHardwareVersion());
    EXPECT_TRUE(unknown.isCofVersionAccepted());
    EXPECT_FALSE(unknown.flashCOF());
    unknown.readCofVersion();
    EXPECT_EQ(unknown.getCofVersionText(), L"??");
    EXPECT_EQ(unknown.getName(),
              host::wformat(L"aUnknownCtlr(Serial#1150000000 this=%x)", logAddress(&unknown)));
}

TEST_F(KindTest, UnknownControllerOwnsEveryKnownRangeOrAllWhenAssumingT1) {
    for (std::uint32_t serial : {1030000000u, 1430000000u, 1500000000u}) {
        attach(sim::BoardKind::T1, serial);
        UnknownCtlr strict(openDriver(), false);
        EXPECT_FALSE(strict.ownsSerialNumber()) << serial;
        UnknownCtlr lenient(INVALID_HANDLE_VALUE, true);
        EXPECT_TRUE(lenient.ownsSerialNumber());
        bus->detachAll(false);
    }
    attach(sim::BoardKind::T1, 1429999999u);
    UnknownCtlr strict(openDriver(), false);
    EXPECT_TRUE(strict.ownsSerialNumber());
}

TEST_F(KindTest, KindsOwnTheirSerialRangesInclusively) {
    acceptAnyCofVersion = true;
    struct Range {
        sim::BoardKind kind;
        std::uint32_t first;
        std::uint32_t last;
    };
    const Range ranges[] = {{sim::BoardKind::T1, 1030000001u, 1129999999u},
                            {sim::BoardKind::RF, 1130000001u, 1229999999u},
                            {sim::BoardKind::IP150, 1230000001u, 1329999999u},
                            {sim::BoardKind::Analog, 1330000001u, 1429999999u}};
    for (const Range& r : ranges) {
        for (std::uint32_t serial : {r.first - 1, r.first, r.last, r.last + 1}) {
            attach(r.kind, serial);
            auto ctlr = makeCtlr(r.kind, false, false);
            EXPECT_EQ(ctlr->ownsSerialNumber(), serial == r.first || serial == r.last)
                << sim::kindName(r.kind) << " " << serial;
            ctlr.reset();
            bus->detachAll(false);
        }
    }
}

}  // namespace
}  // namespace boardtest
