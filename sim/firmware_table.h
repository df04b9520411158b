#pragma once
// The command set of the simulated DSP programs, one table per board kind.
//
// Each command (a device-1 frame) ends in one of three ways:
//   Done   - the DSP shows 8 (command done); nothing to fetch.
//   Reply  - the DSP shows 5 (result ready) and the next get-data answers a
//            device-1 frame with `replyOpcode` and the built payload.
//   Reject - the DSP shows 9 (bad command).
// An opcode that is not in its kind's table completes as Done.
//
// To add a command, add a row to the kind's table in firmware_table.cpp (and
// to FIRMWARE.md, which test-software writers read).
//
// The version replies and the flash command are laid out here independently
// of the board controllers (boards/*_ctlr.cpp) on purpose: a controller that
// misreads its program's reply then fails against the simulated board. The
// two agree as tests/boards/kinds_test.cpp checks (VersionRepliesOfEachLayout-
// AreRead, T1VersionBytesAreSigned, OnlyTheNewIpBoardRefusesProgramsBelow-
// Major60, FlashAfterBootSendsEachKindsCommand). The frame, the control codes
// and the status block are not copied: they come from dsplink/wire.h.
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/win_types.h"
#include "sim/board_spec.h"

namespace sim {

// Commands every simulated program knows.
inline constexpr BYTE kOpcodeEcho = 0x7E;    // answers its payload
inline constexpr BYTE kOpcodeReject = 0x7F;  // answers 9 (bad command)

// The flash command's payload: words 0 and 4829000, little-endian.
inline constexpr std::size_t kFlashPayloadSize = 8;
inline constexpr std::size_t kFlashReplySize = 8;

enum class CommandOutcome { Done, Reply, Reject };

// What a reply builder may look at.
struct ProgramContext {
    BoardKind kind;
    ProgramVersion version;
};

using ReplyBuilder = std::vector<BYTE> (*)(const ProgramContext& program,
                                           std::span<const BYTE> payload);

struct FirmwareCommand {
    BYTE opcode;
    std::string_view name;
    CommandOutcome outcome;
    BYTE replyOpcode;    // Reply only
    ReplyBuilder reply;  // Reply only
};

// The table of a kind, in opcode order of the documentation.
std::span<const FirmwareCommand> firmwareCommands(BoardKind kind);
// The row for an opcode, or null (then the command completes as Done).
const FirmwareCommand* findFirmwareCommand(BoardKind kind, BYTE opcode);

// Version query opcode of each kind.
BYTE versionQueryOpcode(BoardKind kind);

// Marker at offset 756 of the IP version reply that tells the newer IP board.
inline constexpr std::uint32_t kNewIpBoardMarker = 0x01180001;
inline constexpr std::size_t kNewIpBoardMarkerOffset = 756;

}  // namespace sim
