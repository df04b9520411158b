#pragma once
// Identity and behaviour settings of one simulated DSP board.
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// Board type codes of the identity record.
enum BoardTypeCode : std::uint32_t {
    kBoardTypePcm = 0,
    kBoardTypeRf = 1,
    kBoardTypeAnalog = 2,
    kBoardTypeIp = 3,
    kBoardTypeIp155 = 4,
    kBoardTypeUnknown = 5,
};

// The 32-byte identity record (device 11), little-endian on the wire.
struct BoardDetail {
    std::uint32_t serial = 0;
    std::uint32_t info1 = 0;
    std::uint32_t hwVersion = 0;  // 2002 reads as "2.2"
    std::uint32_t info3 = 0;
    std::uint64_t info45 = 0;
    std::uint32_t boardType = kBoardTypeUnknown;
    std::uint32_t info7 = 0;

    static constexpr std::size_t kSize = 32;
    std::array<BYTE, kSize> encode() const;
    static BoardDetail decode(const std::array<BYTE, kSize>& bytes);
    friend bool operator==(const BoardDetail&, const BoardDetail&) = default;
};

struct BoardSpec {
    BoardKind kind = BoardKind::T1;
    BoardDetail detail;
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
