#pragma once
// Simulated DSP boards behind the USB/DSP stream driver "DSP1:".
//
// Usage (tests of the link, the board controllers, the server):
//
//   host::ScopedClock clock(std::make_shared<host::ManualClock>());
//   auto bus = sim::installDspBus(/*announceChanges=*/false);
//   auto rf = bus->attach(sim::defaultBoardSpec(sim::BoardKind::RF));  // slot 1
//   HANDLE h = host::CreateFileW(L"DSP1:", GENERIC_READ | GENERIC_WRITE, 0,
//                                nullptr, OPEN_EXISTING, 0, nullptr);     // reaches rf
//   ... DeviceIoControl(h, wire::IOCTL_DSP_GET_STATUS, block, 64, nullptr, 0, nullptr) ...
//   rf->failNextTransfers(1, ERROR_GEN_FAILURE);  // fault injection
//   bus->detach(1);         // every later call on h fails with 1167
//   sim::uninstallDspBus();
//
// Opening "DSP1:" reaches the attached board in the lowest slot that no open
// handle holds; with none left the open fails (INVALID_HANDLE_VALUE). A handle
// keeps its board until it is closed or the board is detached.
//
// What the boards answer:
//  - status read (wire::IOCTL_DSP_GET_STATUS, buffer in the INPUT position, 64 or 65
//    bytes): the 64-byte status block - byte 0 device 1, byte 2 the DSP state,
//    bytes 4..63 detail with the sequence number in byte 63.
//  - send (wire::IOCTL_DSP_SEND_DATA, frame in the OUTPUT position):
//      device 11 opcode 0 asks for the board detail, opcode 1 (+32 bytes)
//      replaces it; device 1 is a DSP command (see firmware_table.h and
//      FIRMWARE.md); devices 4, 5, 6 are the boot frames (reset + clear
//      memory; 4-byte little-endian address + data; start the program after
//      the board's boot delay). A frame with any other device, or shorter than
//      its header announces, makes the status show 10 until the next good one.
//  - get data (wire::IOCTL_DSP_GET_DATA, buffer in the INPUT position): the pending reply
//    frame (header + payload, cut to the buffer size), fetched once; with none
//    pending an all-zero 4-byte header.
//  - a command to a running DSP: the sequence number moves by 2; with an ack
//    time the DSP first shows 7 under the count in between, then 8 (done),
//    5 (reply ready) or 9 (rejected) under the new count. While no program
//    runs (state 2 after a reset, until the boot delay has passed) commands
//    are dropped and nothing advances. A program starts with sequence 1.
//
// Timing uses the host clock. The link polls the status block back to back
// without sleeping; under a ManualClock in its Advance mode virtual time then
// moves only through sleeps, so give a board a transfer latency (e.g. 1 ms)
// whenever a test needs time to pass during a wait (ack windows, a hung DSP,
// boot delays watched by polling). A status read through a handle that
// finds the block as that handle last read it waits for the board's next
// change, at most SimDspBoard::kStatusReadPace of real time (not with a
// transfer latency), so a host polling a board that stands still does not spin.
#include <array>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/devices.h"
#include "sim/board_spec.h"
#include "sim/dsp_board.h"
#include "sim/dsp_wire.h"
#include "sim/firmware_table.h"
#include "sim/program_version.h"

namespace sim {

inline constexpr wchar_t kDspDeviceName[] = L"DSP1:";

// One line of the `boards` listing.
struct BoardInfo {
    int slot = 0;
    BoardKind kind = BoardKind::T1;
    std::uint32_t serial = 0;
    BYTE state = 0;
    BYTE sequence = 0;
    bool programRunning = false;
    ProgramVersion version;
    bool held = false;  // an open handle reaches it
};

class SimDspBus final : public host::StreamDriver {
  public:
    static constexpr int kFirstSlot = 1;
    static constexpr int kLastSlot = 9;

    explicit SimDspBus(bool announceChanges = true) : announce_(announceChanges) {}
    ~SimDspBus() override;

    // Plugs a board into `slot` (0: the lowest free one). Null when the slot
    // is taken or out of 1..9, or when every slot is taken.
    std::shared_ptr<SimDspBoard> attach(const BoardSpec& spec, int slot = 0);
    std::shared_ptr<SimDspBoard> attach(BoardKind kind, int slot = 0) {
        return attach(defaultBoardSpec(kind), slot);
    }
    // Unplugs the board in `slot`; false when the slot is empty.
    bool detach(int slot);
    // Unplugs every board; `raiseEvents` false skips the broadcasts.
    void detachAll(bool raiseEvents = true);

    std::shared_ptr<SimDspBoard> board(int slot) const;
    std::shared_ptr<SimDspBoard> boardBySerial(std::uint32_t serial) const;
    // Slot of an attached board, 0 when it is not attached here.
    int slotOf(const SimDspBoard& board) const;
    std::vector<BoardInfo> boards() const;

    // Whether attach and detach raise device-change broadcasts (arrival,
    // removal complete). Unit tests usually switch them off.
    void setAnnounceChanges(bool announce);

    std::shared_ptr<host::DeviceInstance> open(DWORD access, DWORD shareMode,
                                               DWORD& error) override;

  private:
    void announce(DWORD event);
    bool unplug(int slot);

    mutable std::mutex mutex_;
    std::array<std::shared_ptr<SimDspBoard>, kLastSlot + 1> slots_{};  // index 0 unused
    bool announce_;
};

// Creates a fresh bus and registers it as "DSP1:" (a bus installed before is
// uninstalled first). The host's driver table keeps it alive.
std::shared_ptr<SimDspBus> installDspBus(bool announceChanges = true);
// Detaches every board of the installed bus (quietly) and unregisters it.
void uninstallDspBus();
// The bus registered as "DSP1:", or null.
std::shared_ptr<SimDspBus> installedDspBus();

}  // namespace sim
