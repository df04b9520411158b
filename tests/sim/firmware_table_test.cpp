// The per-kind command sets and the default boards, checked against the reply
// layouts the board controllers read.
#include <gtest/gtest.h>

#include <vector>

#include "sim/board_spec.h"
#include "sim/dsp_wire.h"
#include "sim/firmware_table.h"

namespace {

using sim::BoardKind;

constexpr BoardKind kAllKinds[] = {BoardKind::T1, BoardKind::RF, BoardKind::IP150, BoardKind::IP163,
                                   BoardKind::Analog};

std::vector<BYTE> reply(BoardKind kind, BYTE opcode, sim::ProgramVersion version,
                        std::vector<BYTE> payload = {}) {
    const sim::FirmwareCommand* command = sim::findFirmwareCommand(kind, opcode);
    EXPECT_NE(command, nullptr);
    if (!command || !command->reply) return {};
    return command->reply(sim::ProgramContext{kind, version}, payload);
}

TEST(FirmwareTable, VersionQueryOfEachKindAnswersItsLayout) {
    auto rf = reply(BoardKind::RF, 1, {53, 2});
    ASSERT_EQ(rf.size(), 36u);
    EXPECT_EQ(wire::readU32le(rf, 20), 53u);
    EXPECT_EQ(wire::readU32le(rf, 24), 2u);

    auto t1 = reply(BoardKind::T1, 12, {102, 1});
    ASSERT_EQ(t1.size(), 16u);
    EXPECT_EQ(t1[14], 102);
    EXPECT_EQ(t1[15], 1);

    auto ip = reply(BoardKind::IP150, 1, {99, 6});
    ASSERT_EQ(ip.size(), 764u);
    EXPECT_EQ(wire::readU16le(ip, 0), 99);
    EXPECT_EQ(wire::readU16le(ip, 2), 6);
    EXPECT_EQ(wire::readU32le(ip, 756), 0u);

    auto ipg = reply(BoardKind::IP163, 1, {60, 0});
    ASSERT_EQ(ipg.size(), 764u);
    EXPECT_EQ(wire::readU16le(ipg, 0), 60);
    EXPECT_EQ(wire::readU32le(ipg, 756), sim::kNewIpBoardMarker);

    auto pots = reply(BoardKind::Analog, 1, {58, 3});
    ASSERT_EQ(pots.size(), 660u);
    EXPECT_EQ(pots[0], 58);
    EXPECT_EQ(pots[1], 3);
}

TEST(FirmwareTable, LookupHelpersAgreeWithTheTables) {
    for (BoardKind kind : kAllKinds) {
        const BYTE opcode = sim::versionQueryOpcode(kind);
        const auto* query = sim::findFirmwareCommand(kind, opcode);
        ASSERT_NE(query, nullptr) << sim::kindName(kind);
        EXPECT_EQ(query->outcome, sim::CommandOutcome::Reply);
        EXPECT_EQ(query->replyOpcode, opcode);
        EXPECT_EQ(reply(kind, opcode, {1, 1}).size(), sim::versionReplySize(kind));

        if (auto flash = sim::flashOpcode(kind)) {
            const auto* command = sim::findFirmwareCommand(kind, *flash);
            ASSERT_NE(command, nullptr);
            EXPECT_EQ(command->replyOpcode, *flash);
        }
        for (const auto& command : sim::firmwareCommands(kind)) {
            EXPECT_EQ(command.outcome == sim::CommandOutcome::Reply, command.reply != nullptr)
                << sim::kindName(kind) << " opcode " << int{command.opcode};
        }
    }
    // The other kinds' flash opcodes: the board kinds' flash test.
    EXPECT_EQ(sim::flashOpcode(BoardKind::IP163), BYTE{0});
}

TEST(FirmwareTable, FlashRepeatsItsPayloadInAnEightByteReply) {
    const std::vector<BYTE> payload = {0, 0, 0, 0, 0x48, 0xAF, 0x49, 0x00};
    EXPECT_EQ(reply(BoardKind::RF, 15, {53, 2}, payload), payload);
    EXPECT_EQ(reply(BoardKind::IP150, 0, {99, 6}, {1}).size(), sim::kFlashReplySize);
}

TEST(FirmwareTable, EchoAndRejectExistForEveryKindAndOtherOpcodesAreUnlisted) {
    for (BoardKind kind : kAllKinds) {
        EXPECT_EQ(reply(kind, sim::kOpcodeEcho, {1, 1}, {7, 8, 9}), (std::vector<BYTE>{7, 8, 9}));
        const auto* reject = sim::findFirmwareCommand(kind, sim::kOpcodeReject);
        ASSERT_NE(reject, nullptr);
        EXPECT_EQ(reject->outcome, sim::CommandOutcome::Reject);
        EXPECT_EQ(sim::findFirmwareCommand(kind, 0x20), nullptr);
    }
    EXPECT_EQ(sim::findFirmwareCommand(BoardKind::Analog, 0), nullptr);  // no flash command
}

TEST(DefaultBoards, KindNamesRoundTrip) {
    for (BoardKind kind : kAllKinds) EXPECT_EQ(sim::parseBoardKind(sim::kindName(kind)), kind);
    EXPECT_EQ(sim::kindName(BoardKind::IP163), "ipg");
    EXPECT_EQ(sim::kindName(BoardKind::Analog), "pots");
    EXPECT_FALSE(sim::parseBoardKind("t2"));
}

}  // namespace
