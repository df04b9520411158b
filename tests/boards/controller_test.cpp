// What UsbCtlr does by itself: board detail and its texts, the status query,
// liveness, the removal short-cut and the log line shape.
#include <optional>
#include <regex>

#include "boards/unknown_ctlr.h"
#include "platform/text.h"
#include "tests/boards/board_fixture.h"

namespace boardtest {
namespace {

class ControllerTest : public BoardTest {
  protected:
    // A board of the given detail (the default one without) in slot 1, and a
    // probe controller on it.
    std::unique_ptr<ProbeCtlr> probeOn(std::optional<BoardDetail> detail = std::nullopt) {
        sim::BoardSpec spec = sim::defaultBoardSpec(sim::BoardKind::T1);
        if (detail) spec.detail = *detail;
        board = attach(spec);
        return std::make_unique<ProbeCtlr>(openDriver());
    }

    std::shared_ptr<sim::SimDspBoard> board;
};

BoardDetail detailWith(std::uint32_t hwVersion, std::uint32_t boardType) {
    return {1050000123, 77, hwVersion, 5, 0x0000000100000002ull, boardType, 9};
}

TEST(BoardDetailRecord, DecodesLittleEndianFieldsAndEncodesThemBack) {
    BoardDetail::Bytes bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i + 1);
    const BoardDetail d = BoardDetail::decode(bytes);
    EXPECT_EQ(d, (BoardDetail{0x04030201u, 0x08070605u, 0x0C0B0A09u, 0x100F0E0Du,
                              0x1817161514131211ull, 0x1C1B1A19u, 0x201F1E1Du}));
    EXPECT_EQ(d.encode(), bytes);
}

TEST(BoardDetailRecord, HardwareVersionTexts) {
    EXPECT_EQ(hardwareVersionText(1006), L"1.6");
    EXPECT_EQ(hardwareVersionText(2000), L"2.0");
    EXPECT_EQ(hardwareVersionText(2002), L"2.2");
}

TEST_F(ControllerTest, NewControllerKnowsNoProgramVersionUntilOneIsRead) {
    auto probe = probeOn();
    EXPECT_EQ(probe->cofMajor, 127);
    EXPECT_EQ(probe->cofMinor, 127);
    EXPECT_EQ(probe->getCofVersionText(), L"??");
    probe->cofMinor = 2;
    probe->cofMajor = 53;
    EXPECT_EQ(probe->getCofVersionText(), L"53.2");
}

TEST_F(ControllerTest, DetailIsReadOnceOnFirstUseAndServesEveryGetter) {
    auto probe = probeOn(detailWith(1006, kBoardTypePcm));
    EXPECT_EQ(probe->getHardwareVersionText(), L"1.6");
    EXPECT_EQ(probe->getSerialNumber(), 1050000123u);
    EXPECT_EQ(probe->getSerialNumberText(), L"1050000123");
    EXPECT_EQ(probe->getInfo1Text(), L"77");
    EXPECT_EQ(probe->getInfo3(), 5u);
    EXPECT_EQ(probe->getInfo45(), 0x0000000100000002ull);
    EXPECT_EQ(probe->getInfo7(), 9u);
    EXPECT_EQ(probe->getBoardType(), 0u);
    EXPECT_TRUE(probe->isKnownHardwareVersion());
    EXPECT_EQ(loggedCount(L" Obtained serial number!"), 1);
}

TEST_F(ControllerTest, Info7ReadsZeroOnHardware1003) {
    auto probe = probeOn(detailWith(1003, kBoardTypePcm));
    EXPECT_EQ(probe->getInfo7(), 0u);
    EXPECT_EQ(probe->getHardwareVersionText(), L"1.3");
}

TEST_F(ControllerTest, BoardTypeTextsFollowTheCodeAndTheKind) {
    const std::pair<std::uint32_t, const wchar_t*> cases[] = {
        {0, L"PCM"},     {1, L"RF"},      {2, L"Analog"}, {3, L"IP(150)"},
        {4, L"IP(155)"}, {5, L"Unknown"}, {9, L"Error?"}};
    for (const auto& [code, text] : cases) {
        auto probe = probeOn(detailWith(1006, code));
        EXPECT_EQ(probe->getBoardTypeText(), text) << code;
        if (code == kBoardTypeIp) {
            probe->ip163 = true;
            EXPECT_EQ(probe->getBoardTypeText(), L"IP(163)");
        }
        probe.reset();
        bus->detachAll(false);
    }
    EXPECT_TRUE(logged(L"aProbeBoard Type value 3(thread="));
    EXPECT_TRUE(logged(L"aProbeBoard Type value 9(thread="));
    EXPECT_EQ(loggedCount(L"Unknown Board Type value"), 1) << "only an unknown code is an error";
    EXPECT_TRUE(logged(L"aProbeUnknown Board Type value 9(thread="));
}

TEST_F(ControllerTest, SerialNumberZeroIsReadAgainOncePerCallWithoutNesting) {
    sim::BoardSpec spec = sim::defaultBoardSpec(sim::BoardKind::T1);
    spec.detail.serial = 0;
    attach(spec);
    // The unknown controller's name asks for the serial number itself.
    UnknownCtlr unknown(openDriver(), false);
    EXPECT_EQ(unknown.getSerialNumber(), 0u);
    EXPECT_EQ(loggedCount(L" Obtained serial number!"), 1);
    EXPECT_TRUE(logged(L"aUnknownCtlr(Serial#0 this="));
    EXPECT_EQ(unknown.getSerialNumber(), 0u);
    EXPECT_EQ(loggedCount(L" Obtained serial number!"), 2);
}

TEST_F(ControllerTest, ClosedLinkReadsNoDetail) {
    UnknownCtlr unknown(INVALID_HANDLE_VALUE, false);
    EXPECT_EQ(unknown.getSerialNumber(), 0u);
    EXPECT_EQ(unknown.getBoardDetail(), dspNoUsbComm);
    EXPECT_FALSE(logged(L"Obtained serial number!"));
    EXPECT_FALSE(unknown.isKnownHardwareVersion());
}

TEST_F(ControllerTest, WritingTheDetailKeepsHardwareVersionAndBoardType) {
    auto probe = probeOn(detailWith(1006, kBoardTypePcm));
    probe->getSerialNumber();
    EXPECT_EQ(probe->writeBoardDetail({1050000999, 11, 2002, 33, 0x44, 0x55, 3, 77}), dspOk);
    EXPECT_EQ(board->detail(),
              (BoardDetail{1050000999, 11, 1006, 33, 0x0000005500000044ull, 0, 77}));
    EXPECT_EQ(probe->getSerialNumber(), 1050000999u);
}

TEST_F(ControllerTest, StatusPassesStatesUpTo14AndCallsHigherOnesDead) {
    auto probe = probeOn();
    for (BYTE state : {0, 2, 3, 4, 6, 9, 10, 14}) {
        board->reportState(state);
        EXPECT_EQ(probe->getStatus(nullptr), state) << int{state};
    }
    for (BYTE state : {15, 20, 255}) {
        board->reportState(state);
        EXPECT_EQ(probe->getStatus(nullptr), dspDead) << int{state};
    }
}

TEST_F(ControllerTest, StatusHandsOnTheSixtyDetailBytes) {
    auto probe = probeOn();
    std::vector<BYTE> pattern(59);
    for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<BYTE>(0xA0 + i);
    board->setStatusDetail(pattern);
    std::array<BYTE, 61> detail{};
    detail[60] = 0xEE;
    EXPECT_EQ(probe->getStatus(detail.data()), dspRunning);
    EXPECT_TRUE(std::equal(pattern.begin(), pattern.end(), detail.begin()));
    EXPECT_EQ(detail[59], board->sequence());
    EXPECT_EQ(detail[60], 0xEE) << "wrote past the 60 bytes";
}

TEST_F(ControllerTest, StatusBlockOfAnotherDeviceIsAMixup) {
    auto probe = probeOn();
    board->mixUp(sim::MixUp::StatusDevice);
    EXPECT_EQ(probe->getStatus(nullptr), dspMsgMixup);
    EXPECT_EQ(probe->getStatus(nullptr), dspRunning);
}

TEST_F(ControllerTest, RefusedProgramVersionAnswers15WithoutATransfer) {
    auto probe = probeOn();
    probe->acceptVersion = false;
    board->failNextTransfers(1, ERROR_GEN_FAILURE);
    EXPECT_EQ(probe->getStatus(nullptr), dspWrongCofVersion);
    EXPECT_EQ(board->faults().failTransfers, 1u) << "the board was asked";
    EXPECT_FALSE(logged(L"IOFailure"));
}

TEST_F(ControllerTest, AliveMeansAKnownProgramAndAStateFrom4To9) {
    auto probe = probeOn();
    probe->knownMajor = 102;
    for (int state = 0; state <= 16; ++state) {
        board->reportState(static_cast<BYTE>(state));
        EXPECT_EQ(probe->isAlive(), state >= 4 && state <= 9) << state;
    }
    EXPECT_TRUE(logged(L"aProbeUSBCtlr::isAlive status = 3!\n(thread="));
    EXPECT_TRUE(logged(L"aProbeUSBCtlr::isAlive status = 10!\n(thread="));
    EXPECT_TRUE(logged(L"aProbeUSBCtlr::isAlive status = 1!\n(thread="));  // 16 counts as dead
}

TEST_F(ControllerTest, NotAliveWhileTheVersionIsUnknownRefusedOrTheHardwareStrange) {
    auto probe = probeOn(detailWith(1006, kBoardTypePcm));
    EXPECT_FALSE(probe->isAlive()) << "program version never read";
    EXPECT_EQ(probe->versionReads, 1);
    probe->knownMajor = 102;
    probe->acceptVersion = false;
    EXPECT_FALSE(probe->isAlive());
    probe->acceptVersion = true;
    EXPECT_TRUE(probe->isAlive());
    probe.reset();
    bus->detachAll(false);

    probe = probeOn(detailWith(1007, kBoardTypePcm));
    probe->knownMajor = 102;
    EXPECT_FALSE(probe->isAlive());
    EXPECT_FALSE(logged(L"isAlive status"));
}

TEST_F(ControllerTest, BoardBeingRemovedAnswers11AndIsLeftAlone) {
    auto probe = probeOn();
    probe->knownMajor = 102;
    const BYTE payload[] = {1, 2, 3, 4};
    std::array<BYTE, 4> reply{};
    int replyLength = 4;

    probe->removing = true;
    EXPECT_EQ(probe->atomicSend(sim::kOpcodeEcho, payload, 4), dspNoUsbComm);
    EXPECT_EQ(probe->atomicGet(sim::kOpcodeEcho, payload, 4, sim::kOpcodeEcho, reply.data(),
                               &replyLength),
              dspNoUsbComm);
    EXPECT_FALSE(probe->isAlive());
    EXPECT_EQ(probe->versionReads, 0);
    EXPECT_EQ(board->commandCount(sim::kOpcodeEcho), 0u);

    probe->removing = false;
    EXPECT_EQ(probe->atomicGet(sim::kOpcodeEcho, payload, 4, sim::kOpcodeEcho, reply.data(),
                               &replyLength),
              dspOk);
    EXPECT_EQ(reply, (std::array<BYTE, 4>{1, 2, 3, 4}));
    constexpr BYTE kPlainCommand = 0x55;  // not in the program's table: completes as done
    EXPECT_EQ(probe->atomicSend(kPlainCommand, payload, 4), dspOk);
    EXPECT_EQ(board->commandCount(kPlainCommand), 1u);
}

TEST_F(ControllerTest, LogLineCarriesNameMessageThreadAndTick) {
    auto probe = probeOn();
    clock->setTick(123456);
    probe->logMsg(L" hello ");
    const auto lines = log();
    ASSERT_GE(lines.size(), 2u);
    const std::wregex shape(LR"(aProbe hello \(thread=[0-9a-f]+ @ 123456\))");
    const auto it = std::find_if(lines.begin(), lines.end(), [&](const std::wstring& line) {
        return std::regex_match(line, shape);
    });
    ASSERT_NE(it, lines.end());
    ASSERT_NE(it + 1, lines.end());
    EXPECT_EQ(*(it + 1), L"") << "a board line ends in its own line break";
}

}  // namespace
}  // namespace boardtest
