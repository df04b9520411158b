// The status block, the board detail and the command handshake of a running
// DSP, seen through the driver.
#include <thread>
#include <vector>

#include "sim/firmware_table.h"
#include "sim_fixture.h"

namespace simtest {
namespace {

using sim::BoardKind;

class DspBoardTest : public SimBusTest {
  protected:
    std::shared_ptr<sim::SimDspBoard> attachAndOpen(const sim::BoardSpec& spec) {
        auto board = bus_->attach(spec);
        client_ = std::make_unique<DspClient>();
        return board;
    }
    std::shared_ptr<sim::SimDspBoard> attachAndOpen(BoardKind kind) {
        return attachAndOpen(sim::defaultBoardSpec(kind));
    }
    // The state and sequence number the status block shows.
    using Shown = std::pair<int, int>;
    Shown shown() { return {client_->state(), client_->sequence()}; }
    std::unique_ptr<DspClient> client_;
};

TEST_F(DspBoardTest, StatusBlockCarriesDeviceStateDetailAndSequence) {
    auto board = attachAndOpen(BoardKind::RF);
    std::vector<BYTE> detail(59);
    for (std::size_t i = 0; i < detail.size(); ++i) detail[i] = static_cast<BYTE>(0xA0 + i);
    board->setStatusDetail(detail);

    sim::StatusBlock block = client_->status();
    EXPECT_EQ(block[0], 1);
    EXPECT_EQ(block[2], 4);
    EXPECT_EQ(block[4], 0xA0);
    EXPECT_EQ(block[62], 0xA0 + 58);
    EXPECT_EQ(block[63], 1);
}

// The record's field layout is the codec's (tests/boards/controller_test.cpp);
// here: the frame around it, and that it is fetched once.
TEST_F(DspBoardTest, BoardDetailReadAnswersTheRecordOnce) {
    auto spec = sim::defaultBoardSpec(BoardKind::IP150);
    spec.detail.info7 = 7;
    attachAndOpen(spec);

    ASSERT_TRUE(client_->send(bytes({11, 0, 0, 0})));
    auto frame = client_->reply(36);
    ASSERT_EQ(frame.size(), 36u);
    EXPECT_EQ(std::vector<BYTE>(frame.begin(), frame.begin() + 4), bytes({11, 0, 0, 32}));
    EXPECT_EQ(wire::readU32le(frame, 32), 7u);
    EXPECT_EQ(client_->reply(8), bytes({0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(DspBoardTest, CommandWithoutReplyAdvancesSequenceByTwoShowsDoneAndWraps) {
    attachAndOpen(BoardKind::T1);
    client_->command(0x20, bytes({1, 2, 3}));
    EXPECT_EQ(client_->sequence(), 3);
    EXPECT_EQ(client_->state(), 8);
    client_->command(0x21);
    EXPECT_EQ(client_->sequence(), 5);
    for (int i = 0; i < 125; ++i) client_->command(0x20);
    EXPECT_EQ(client_->sequence(), 255);
    client_->command(0x20);
    EXPECT_EQ(client_->sequence(), 1);  // wraps past 0
}

TEST_F(DspBoardTest, CommandWithReplyShowsResultReadyThenServesTheFrameOnce) {
    attachAndOpen(BoardKind::Analog);
    client_->command(sim::kOpcodeEcho, bytes({9, 8, 7}));
    EXPECT_EQ(shown(), (Shown{5, 3}));

    auto frame = client_->reply(7);
    EXPECT_EQ(frame, bytes({1, sim::kOpcodeEcho, 0, 3, 9, 8, 7}));
    EXPECT_EQ(client_->state(), 4);  // nothing left to fetch
    EXPECT_EQ(client_->sequence(), 3);
    EXPECT_EQ(client_->reply(4), bytes({0, 0, 0, 0}));
}

TEST_F(DspBoardTest, ReplyIsCutToTheCallersBuffer) {
    attachAndOpen(BoardKind::IP150);
    client_->command(1);  // version query, 764-byte reply
    auto frame = client_->reply(8);
    EXPECT_EQ(frame, bytes({1, 1, 0x02, 0xFC, 99, 0, 6, 0}));
}

TEST_F(DspBoardTest, RejectShowsBadCommandAndANewCommandDropsAnUnfetchedReply) {
    attachAndOpen(BoardKind::RF);
    client_->command(sim::kOpcodeReject);
    EXPECT_EQ(shown(), (Shown{9, 3}));
    EXPECT_EQ(client_->reply(4), bytes({0, 0, 0, 0}));

    // A new command discards an unfetched reply.
    client_->command(sim::kOpcodeEcho, bytes({5}));
    client_->command(0x40);
    EXPECT_EQ(client_->state(), 8);
    EXPECT_EQ(client_->reply(4), bytes({0, 0, 0, 0}));
}

// Reply rules from a scenario file take precedence over the kind's table.
TEST_F(DspBoardTest, ReplyRulesAnswerDataEchoOrLate) {
    using Rule = sim::ReplyRule;
    auto board = attachAndOpen(BoardKind::T1);
    board->setReplyRules({{0x42, 0x43, Rule::Kind::Data, {0xAA, 0xBB}, 0},
                          {12, 12, Rule::Kind::Echo, {}, 0},
                          {0x20, 0, Rule::Kind::Delay, {}, 6000}});
    client_->command(0x42, bytes({1}));
    EXPECT_EQ(client_->state(), 5);
    EXPECT_EQ(client_->reply(6), bytes({1, 0x43, 0, 2, 0xAA, 0xBB}));
    client_->command(12, bytes({7, 6}));  // the version query, echoed instead
    EXPECT_EQ(client_->reply(6), bytes({1, 12, 0, 2, 7, 6}));
    client_->command(0x20);
    EXPECT_EQ(client_->state(), 7);
    clock_->advance(5999);
    EXPECT_EQ(client_->state(), 7);
    clock_->advance(1);
    EXPECT_EQ(client_->state(), 8);
}

TEST_F(DspBoardTest, AckWindowShowsSevenUnderTheCountInBetween) {
    auto board = attachAndOpen(BoardKind::T1);
    board->setAckTime(30);
    client_->command(12);
    EXPECT_EQ(shown(), (Shown{7, 2}));
    clock_->advance(29);
    EXPECT_EQ(client_->state(), 7);
    clock_->advance(1);
    EXPECT_EQ(shown(), (Shown{5, 3}));
    auto frame = client_->reply(20);
    EXPECT_EQ(frame[1], 12);
    EXPECT_EQ(frame[18], 102);
}

TEST_F(DspBoardTest, AckUnderTheFinalNumberWhenConfigured) {
    auto board = attachAndOpen(BoardKind::T1);
    board->setAckTime(10);
    board->setAckNumbering(sim::AckNumbering::Final);
    client_->command(0x20);
    EXPECT_EQ(shown(), (Shown{7, 3}));
    clock_->advance(10);
    EXPECT_EQ(shown(), (Shown{8, 3}));
}

TEST_F(DspBoardTest, CommandDuringAckCompletesThePreviousOne) {
    auto board = attachAndOpen(BoardKind::T1);
    board->setAckTime(100);
    client_->command(0x20);
    client_->command(0x21);
    EXPECT_EQ(shown(), (Shown{7, 4}));
    clock_->advance(100);
    EXPECT_EQ(client_->sequence(), 5);
}

TEST_F(DspBoardTest, MalformedFramesShowBadUsbCommandUntilTheNextGoodFrame) {
    auto board = attachAndOpen(BoardKind::T1);
    // Header cut short, fewer bytes than announced, no such device, detail too short.
    for (const auto& frame : {bytes({1, 0x20}), bytes({1, 0x20, 0, 5, 1}), bytes({9, 0, 0, 0}),
                              bytes({11, 1, 0, 4, 1, 2, 3, 4})}) {
        ASSERT_TRUE(client_->send(frame));
        EXPECT_EQ(client_->state(), 10);
    }
    EXPECT_EQ(board->detail().serial, 1050000000u);
    EXPECT_EQ(client_->sequence(), 1);
    EXPECT_EQ(board->commandHistory().size(), 0u);

    client_->command(0x20);
    EXPECT_EQ(shown(), (Shown{8, 3}));
}

TEST_F(DspBoardTest, ExtraBytesBeyondTheAnnouncedLengthAreIgnored) {
    auto board = attachAndOpen(BoardKind::T1);
    ASSERT_TRUE(client_->send(bytes({1, sim::kOpcodeEcho, 0, 1, 42, 43, 44})));
    EXPECT_EQ(client_->reply(6), bytes({1, sim::kOpcodeEcho, 0, 1, 42, 0}));
}

TEST_F(DspBoardTest, CommandHistoryAndCountsRecordWhatTheProgramTook) {
    auto board = attachAndOpen(BoardKind::RF);
    client_->command(15, bytes({0, 0, 0, 0, 0x48, 0xAF, 0x49, 0}));
    client_->command(0x33);
    auto history = board->commandHistory();
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].opcode, 15);
    EXPECT_EQ(history[0].payload.size(), 8u);
    EXPECT_EQ(history[1].opcode, 0x33);
    EXPECT_EQ(board->commandCount(15), 1u);
    for (std::size_t i = 0; i < sim::SimDspBoard::kHistorySize + 5; ++i) client_->command(0x34);
    EXPECT_EQ(board->commandHistory().size(), sim::SimDspBoard::kHistorySize);
    EXPECT_EQ(board->commandCount(0x34), sim::SimDspBoard::kHistorySize + 5);
}

TEST_F(DspBoardTest, SeveralThreadsOnOneBoardKeepItConsistent) {
    auto board = bus_->attach(BoardKind::T1);
    DspClient client;
    constexpr int kThreads = 4;
    constexpr int kCommands = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kCommands; ++i) {
                client.command(0x20);
                client.status();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(board->commandCount(0x20), unsigned{kThreads * kCommands});
    EXPECT_EQ(client.sequence(), static_cast<BYTE>(1 + 2 * kThreads * kCommands));
}

}  // namespace
}  // namespace simtest
