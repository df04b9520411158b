// What every kind's command set shares, and the kind names scenario files use.
// The version reply layouts are checked against the board controllers in
// tests/boards/kinds_test.cpp.
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
