#pragma once
// Identity and behaviour settings of one simulated DSP board.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "dsplink/wire.h"
#include "platform/win_types.h"
#include "sim/program_version.h"

namespace sim {

// The board kinds of the unit. IP boards come in two generations that differ
// in serial range, hardware version, image file and version reply.
enum class BoardKind { T1, RF, IP150, IP163, Analog };

// Short names used by tools and tests: "t1", "rf", "ip", "ipg", "pots" (the
// image file name without ".cof").
std::string_view kindName(BoardKind kind);
std::optional<BoardKind> parseBoardKind(std::string_view name);

// The identity record (device 11) and its board type codes.
using wire::BoardDetail;
using enum wire::BoardTypeCode;

struct BoardSpec {
    BoardKind kind = BoardKind::T1;
    BoardDetail detail{.boardType = kBoardTypeUnknown};
    // Version of a program whose image carries no version words, and of the
    // program a board runs from its flash when it is attached.
    ProgramVersion defaultVersion;
    // A board comes up running the program in its flash; false models a DSP
    // held in reset until it is booted.
    bool startsRunning = true;
    // How long a command shows 7 (acknowledged) before it completes.
    DWORD ackTimeMs = 0;
    // From the image-end frame until the program runs (state 2 meanwhile).
    DWORD bootDelayMs = 50;
};

// A board of the given kind with the documented serial number, the hardware
// version and board type the kind expects, and the version its controller
// accepts:
//   t1   serial 1050000000, hw 1006, type 0 (PCM),    version 102.1
//   rf   serial 1150000000, hw 2002, type 1 (RF),     version 53.2
//   ip   serial 1235000000, hw 1006, type 3 (IP150),  version 99.6
//   ipg  serial 1245000000, hw 2000, type 3 (IP163),  version 99.6
//   pots serial 1350000000, hw 1006, type 2 (Analog), version 58.3
BoardSpec defaultBoardSpec(BoardKind kind);

}  // namespace sim
