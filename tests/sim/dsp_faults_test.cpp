// Injected faults: failing transfers, reported states, a hung DSP, mixed-up
// answers, transfer latency.
#include <vector>

#include "sim/firmware_table.h"
#include "sim_fixture.h"

namespace simtest {
namespace {

using sim::BoardKind;

class DspFaultsTest : public OneBoardTest {};

TEST_F(DspFaultsTest, NextTransfersFailWithTheGivenCodeThenWorkAgain) {
    board_->failNextTransfers(2, ERROR_GEN_FAILURE);
    sim::StatusBlock block{};
    EXPECT_FALSE(client_->status(block));
    EXPECT_EQ(client_->lastError, ERROR_GEN_FAILURE);
    EXPECT_FALSE(client_->send(sim::makeFrame(1, 0x20, {})));  // not delivered
    EXPECT_EQ(client_->lastError, ERROR_GEN_FAILURE);
    EXPECT_EQ(board_->faults().failTransfers, 0u);
    EXPECT_TRUE(client_->status(block));
    EXPECT_EQ(block[63], 1);
    EXPECT_EQ(board_->commandCount(0x20), 0u);

    board_->failNextTransfers(1, ERROR_INVALID_HANDLE);
    std::vector<BYTE> frame;
    EXPECT_FALSE(client_->getData(frame, 4));
    EXPECT_EQ(client_->lastError, ERROR_INVALID_HANDLE);
}

TEST_F(DspFaultsTest, ReportedStateOverridesTheStatusWhileTheDspGoesOn) {
    board_->reportState(3);
    EXPECT_EQ(client_->state(), 3);
    client_->command(0x20);
    EXPECT_EQ(client_->state(), 3);
    EXPECT_EQ(client_->sequence(), 3);
    board_->reportState(20);
    EXPECT_EQ(client_->state(), 20);
    board_->clearReportedState();
    EXPECT_EQ(client_->state(), 8);
}

TEST_F(DspFaultsTest, FrozenDspSwallowsCommandsAndStandsStill) {
    board_->setAckTime(10);
    client_->command(0x20);
    board_->freeze(true);
    clock_->advance(10000);
    EXPECT_EQ(client_->state(), 7);
    EXPECT_EQ(client_->sequence(), 2);
    client_->command(12);
    EXPECT_EQ(client_->sequence(), 2);
    EXPECT_EQ(board_->commandsIgnored(), 1u);

    // A boot does not revive it: the new program hangs too.
    client_->send(bytes({4, 0, 0, 0}));
    client_->send(bytes({6, 0, 0, 0}));
    clock_->advance(50);
    EXPECT_EQ(client_->state(), 4);
    client_->command(12);
    EXPECT_EQ(client_->sequence(), 1);

    board_->clearFaults();
    client_->command(12);
    EXPECT_EQ(client_->sequence(), 2);
    clock_->advance(10);
    EXPECT_EQ(client_->sequence(), 3);
    EXPECT_EQ(client_->state(), 5);
}

TEST_F(DspFaultsTest, ThawedCommandGetsAFreshAckWindow) {
    board_->setAckTime(10);
    board_->freeze(true);
    board_->freeze(false);
    client_->command(0x20);
    board_->freeze(true);
    clock_->advance(100);
    board_->freeze(false);
    EXPECT_EQ(client_->state(), 7);
    clock_->advance(10);
    EXPECT_EQ(client_->state(), 8);
}

TEST_F(DspFaultsTest, ReplyMixUpsChangeDeviceOrOpcodeForTheGivenCount) {
    board_->mixUp(sim::MixUp::ReplyDevice);
    client_->command(sim::kOpcodeEcho, bytes({1}));
    EXPECT_EQ(client_->reply(5), bytes({2, sim::kOpcodeEcho, 0, 1, 1}));
    client_->command(sim::kOpcodeEcho, bytes({1}));
    EXPECT_EQ(client_->reply(5)[0], 1);

    board_->mixUp(sim::MixUp::ReplyOpcode, 2);
    for (int i = 0; i < 2; ++i) {
        client_->command(12);
        EXPECT_EQ(client_->reply(4)[1], 13);
    }
    client_->command(12);
    EXPECT_EQ(client_->reply(4)[1], 12);

    // Board detail replies are not mixed up, and do not use up the count.
    board_->mixUp(sim::MixUp::ReplyDevice);
    client_->send(bytes({11, 0, 0, 0}));
    EXPECT_EQ(client_->reply(4)[0], 11);
    EXPECT_EQ(board_->faults().mixUpCount, 1u);
}

TEST_F(DspFaultsTest, LatencySleepsPerTransferSoAPollingHostSeesTheAckWindowEnd) {
    board_->setTransferLatency(1);
    board_->setAckTime(20);
    client_->command(0x20);
    int polls = 0;
    while (client_->sequence() != 3 && polls < 1000) ++polls;
    EXPECT_EQ(polls, 19);
    EXPECT_EQ(client_->state(), 8);
    // One millisecond slept on the host clock per transfer: the command, 20
    // sequence reads, the state read.
    EXPECT_EQ(clock_->totalSlept(), 1u + 20u + 1u);
}

TEST_F(DspFaultsTest, ClearFaultsRestoresNormalService) {
    board_->failNextTransfers(5, ERROR_GEN_FAILURE);
    board_->reportState(6);
    board_->mixUp(sim::MixUp::ReplyOpcode, 3);
    board_->setTransferLatency(7);
    board_->clearFaults();
    const auto f = board_->faults();
    EXPECT_EQ(f.failTransfers, 0u);
    EXPECT_FALSE(f.reportedState);
    EXPECT_FALSE(f.mixUp);
    EXPECT_EQ(f.latencyMs, 0u);
    client_->command(12);
    EXPECT_EQ(client_->state(), 5);
    EXPECT_EQ(client_->reply(4)[1], 12);
    EXPECT_EQ(clock_->totalSlept(), 0u);
}

}  // namespace
}  // namespace simtest
