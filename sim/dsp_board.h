#pragma once
// One simulated DSP board behind the "DSP1:" driver: its USB interface (the
// three driver transfers), the DSP's state machine with its 64-byte status
// block and sequence number, the program's command set (firmware_table.h),
// the boot path into a sparse memory, and fault injection for tests.
//
// All timing is virtual: the ack window, the boot delay and the transfer
// latency are measured with host::GetTickCount and waited with host::Sleep,
// so a test under host::ManualClock decides when time moves. Time-dependent
// state settles lazily whenever the board is asked or driven.
//
// Status reads take time like the hardware's: a read through a handle that
// sees the same block as that handle's last read waits for the board's next
// change, at most kStatusReadPace (see there), so a host polling a board that
// stands still does not spin.
//
// Thread-safe: every operation takes the board's own lock.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "platform/win_types.h"
#include "sim/board_spec.h"
#include "sim/dsp_memory.h"
#include "sim/dsp_wire.h"

namespace sim {

// Where the acknowledgement of a command in progress shows its number. The
// DSP counts 2 per command: HalfStep shows 7 under the odd count between
// (old + 1, so a waiting host keeps polling) and completes under old + 2;
// Final shows 7 under old + 2 already, so a host that polls twice within the
// ack window sees the awaited number with an unexpected state.
enum class AckNumbering { HalfStep, Final };

// Injected mix-ups, each for a number of occurrences.
enum class MixUp {
    ReplyDevice,  // a reply frame of the DSP carries device 2 instead of 1
    ReplyOpcode,  // a reply frame of the DSP carries its opcode + 1
    StatusDevice  // a status block carries device 2 in byte 0
};

// The fault settings in force (a snapshot).
struct FaultSettings {
    unsigned failTransfers = 0;  // transfers still to fail
    DWORD failError = 0;         // with this system error code
    std::optional<BYTE> reportedState;
    bool frozen = false;
    std::optional<MixUp> mixUp;
    unsigned mixUpCount = 0;
    DWORD latencyMs = 0;
};

// Extra firmware behaviour of one board, as a scenario file describes it: a
// rule for an opcode takes precedence over the kind's command table.
struct ReplyRule {
    enum class Kind {
        Data,  // result ready; the reply frame carries replyOpcode and `data`
        Echo,  // result ready; the reply frame carries replyOpcode and the payload
        Delay  // the kind's own outcome, but only `delayMs` after the command
    };
    BYTE opcode = 0;
    BYTE replyOpcode = 0;
    Kind kind = Kind::Data;
    std::vector<BYTE> data;
    DWORD delayMs = 0;
    friend bool operator==(const ReplyRule&, const ReplyRule&) = default;
};

// A command the DSP program took (kept for tests and tools).
struct ReceivedCommand {
    BYTE opcode = 0;
    std::vector<BYTE> payload;
};

class SimDspBoard {
  public:
    explicit SimDspBoard(BoardSpec spec);
    SimDspBoard(const SimDspBoard&) = delete;
    SimDspBoard& operator=(const SimDspBoard&) = delete;

    // How long a status read that finds nothing changed since the caller's
    // last read waits for a change: about the round trip of one status read
    // on the unit (a USB control transfer, one 1-ms bus frame). Short enough
    // that a command the DSP finishes on its own clock is seen promptly;
    // long enough that a host polling a hung DSP wakes only 1000 times a
    // second. A changed block is answered at once.
    static constexpr std::chrono::microseconds kStatusReadPace{1000};

    // ---- Driver side: one DeviceIoControl on an open handle of this board.
    // Answers true, or false with a system error code in `error`. `lastRead`
    // is the caller's own record of the last status block it read (null: no
    // pacing); a board with a transfer latency is not paced on top of it.
    bool transfer(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                  DWORD& error, std::optional<StatusBlock>* lastRead = nullptr);

    // ---- Identity and observation.
    BoardKind kind() const { return kind_; }
    BoardDetail detail() const;
    std::uint32_t serial() const { return detail().serial; }
    // The status block as the next status read would deliver it, faults
    // applied (a StatusDevice mix-up is not used up by looking).
    StatusBlock statusBlock();
    BYTE state();
    BYTE sequence();
    bool programRunning();
    // Version of the running program (or of the last one started).
    ProgramVersion programVersion();

    std::vector<BYTE> readMemory(std::uint32_t address, std::size_t size) const;
    bool memoryWritten(std::uint32_t address, std::size_t size) const;
    std::size_t memoryPages() const;

    // Commands taken by the program, oldest first (the last kHistorySize).
    static constexpr std::size_t kHistorySize = 64;
    std::vector<ReceivedCommand> commandHistory() const;
    // How many commands with this opcode the program took since attach.
    unsigned commandCount(BYTE opcode) const;
    // Device-1 frames dropped because no program ran or the DSP hung.
    unsigned commandsIgnored() const;
    // Image-end frames seen (program starts).
    unsigned bootCount() const;
    // Status reads that found nothing changed and waited, since attach.
    unsigned pacedStatusReads() const;

    // ---- Behaviour settings.
    void setAckTime(DWORD ms);
    void setBootDelay(DWORD ms);
    void setAckNumbering(AckNumbering numbering);
    // Bytes 4..62 of the status block (59 bytes; a shorter span leaves the
    // rest zero, a longer one is cut).
    void setStatusDetail(std::span<const BYTE> bytes);
    // Replaces the board's reply rules (none by default).
    void setReplyRules(std::vector<ReplyRule> rules);
    std::vector<ReplyRule> replyRules() const;
    // The longest wait of an unchanged status read (tests: a long pace shows
    // what wakes it; zero: no pacing).
    void setStatusReadPace(std::chrono::microseconds pace);

    // ---- Fault injection.
    // The next `count` transfers fail with `error` (31, 1167, 6, ...).
    void failNextTransfers(unsigned count, DWORD error);
    // The status block shows `state` in byte 2 until cleared; the DSP goes on
    // underneath.
    void reportState(BYTE state);
    void clearReportedState();
    // A hung DSP: commands are swallowed and a command in progress never
    // completes, so the sequence number stands still. Boot frames still reach
    // the board, but the program started by them hangs as well.
    void freeze(bool frozen);
    void mixUp(MixUp how, unsigned count = 1);
    // Every transfer takes this long (host::Sleep before it is served).
    void setTransferLatency(DWORD ms);
    void clearFaults();
    FaultSettings faults() const;

    // ---- Bus side.
    bool attached() const;
    void markDetached();
    // Claims the board for one open handle; false when one holds it already
    // or the board is gone.
    bool tryHold();
    void release();
    bool held() const;

  private:
    enum class Phase { Reset, Starting, Running };

    struct Pending {  // a command showing its acknowledgement
        BYTE finalState;
        std::vector<BYTE> reply;
        DWORD since;
        DWORD holdMs = 0;  // a reply rule's delay, on top of the ack time
    };

    // Wakes paced status reads; every operation that may change the block calls it.
    void changed() { changed_.notify_all(); }
    // With the lock held: waits until the block differs from `seen`, the
    // board goes away, or the pace has passed.
    void waitForStatusChange(std::unique_lock<std::mutex>& lock, const StatusBlock& seen);
    void settle();
    void complete();
    BYTE stateNow() const;
    StatusBlock buildStatusBlock() const;
    void resetDsp();
    void startProgram();

    void getStatus(BYTE* buffer, DWORD size, DWORD* returned);
    void takeFrame(std::span<const BYTE> frame);
    void takeCommand(BYTE opcode, std::span<const BYTE> payload);
    void takeBoardDetail(BYTE opcode, std::span<const BYTE> payload);
    void takeChunk(std::span<const BYTE> payload);
    void getData(BYTE* buffer, DWORD size, DWORD* returned);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::microseconds statusReadPace_ = kStatusReadPace;
    unsigned pacedStatusReads_ = 0;
    const BoardKind kind_;
    BoardDetail detail_;
    const ProgramVersion defaultVersion_;
    DWORD ackTimeMs_;
    DWORD bootDelayMs_;
    AckNumbering ackNumbering_ = AckNumbering::HalfStep;
    std::array<BYTE, wire::kStatusDetailSize - 1> statusDetail_{};
    std::vector<ReplyRule> replyRules_;

    Phase phase_;
    DWORD startTick_ = 0;  // when the image-end frame came
    BYTE sequence_;
    BYTE outcome_ = 4;            // state shown by a running DSP with nothing in progress
    bool badUsbCommand_ = false;  // the USB chip rejected the last frame
    std::optional<Pending> pending_;
    std::optional<std::vector<BYTE>> reply_;
    ProgramVersion version_;
    DspMemory memory_;

    std::deque<ReceivedCommand> history_;
    std::array<unsigned, 256> commandCounts_{};
    unsigned commandsIgnored_ = 0;
    unsigned bootCount_ = 0;

    FaultSettings faults_;
    bool attached_ = true;
    bool held_ = false;
};

}  // namespace sim
