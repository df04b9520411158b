// Status reads that take time like the hardware's: a read that finds nothing
// changed since the handle's last read waits for the board's next change (or
// the pace), so a host polling a board that stands still does not spin.
#include <chrono>
#include <functional>
#include <thread>

#include "sim/firmware_table.h"
#include "sim_fixture.h"
#include "tests/support/waiting.h"

namespace simtest {
namespace {

using std::chrono::steady_clock;

class PacedStatusTest : public OneBoardTest {};

TEST_F(PacedStatusTest, AnUnchangedStatusTakesThePaceAChangedOneAnswersAtOnce) {
    client_->status();  // a handle's first read has nothing to compare with
    EXPECT_EQ(board_->pacedStatusReads(), 0u);

    const auto start = steady_clock::now();
    const sim::StatusBlock again = client_->status();
    EXPECT_GE(steady_clock::now() - start, sim::SimDspBoard::kStatusReadPace);
    EXPECT_EQ(board_->pacedStatusReads(), 1u);
    EXPECT_EQ(again[wire::kSequenceOffset], 1);

    // The fast path: a command the DSP answers at once changes the block.
    client_->command(sim::kOpcodeEcho, bytes({7}));
    EXPECT_EQ(client_->state(), 5);
    EXPECT_EQ(client_->reply(5), bytes({1, sim::kOpcodeEcho, 0, 1, 7}));
    EXPECT_EQ(client_->state(), 4);  // the fetched reply changed it again
    EXPECT_EQ(board_->pacedStatusReads(), 1u);

    // A board with a transfer latency already takes its time per transfer.
    board_->setTransferLatency(1);
    client_->status();
    EXPECT_EQ(board_->pacedStatusReads(), 1u);
}

TEST_F(PacedStatusTest, AWaitingReadEndsWithTheBoardsNextChange) {
    // A pace far longer than any case may take: only the change ends the wait.
    constexpr auto kLongPace = std::chrono::seconds(60);
    struct Case {
        const char* what;
        std::function<void()> setUp;
        std::function<void()> change;
        bool readSucceeds;
        BYTE state, sequence;
    };
    const Case cases[] = {
        {"reported state", {}, [this] { board_->reportState(3); }, true, 3, 1},
        {"ack window ends on virtual time",
         [this] {
             board_->setAckTime(10);
             client_->command(0x20);
         },
         [this] { clock_->advance(10); }, true, 8, 3},
        {"board pulled", {}, [this] { bus_->detach(1); }, false, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        board_->setStatusReadPace(kLongPace);
        if (c.setUp) c.setUp();
        client_->status();

        sim::StatusBlock block{};
        bool ok = false;
        const auto start = steady_clock::now();
        std::thread reader([&] { ok = client_->status(block); });
        ASSERT_TRUE(testing_support::eventually([&] { return board_->pacedStatusReads() == 1; }));
        c.change();
        reader.join();
        EXPECT_LT(steady_clock::now() - start, kLongPace / 2);
        EXPECT_EQ(ok, c.readSucceeds);
        if (!c.readSucceeds) {
            EXPECT_EQ(client_->lastError, ERROR_DEVICE_NOT_CONNECTED);
            continue;
        }
        EXPECT_EQ(block[wire::kStatusOffset], c.state);
        EXPECT_EQ(block[wire::kSequenceOffset], c.sequence);
    }
}

}  // namespace
}  // namespace simtest
