#pragma once
// The parts of the tovel command line that need more than CLI11's checks:
// the simulated boards to attach and the port map.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/board_spec.h"

namespace tovelcmd {

struct BoardChoice {
    sim::BoardKind kind;
    std::uint32_t serial;
};

// "KIND[:SERIAL],..." with KIND one of t1, rf, ip, ipg, pots; "none" for no
// board. A kind named again without a serial gets the next serial number
// after the last one given to that kind, so that two boards of one kind are
// two boards to the registry, which tells boards apart by serial number.
// Answers the boards, or nullopt with the reason in `error`.
std::optional<std::vector<BoardChoice>> parseBoardList(const std::string& list, std::string& error);

struct PortMapping {
    std::uint16_t programPort;
    std::uint16_t hostPort;  // 0: any free port
};

// "PORT=HOSTPORT".
std::optional<PortMapping> parsePortMapping(const std::string& text, std::string& error);

inline constexpr int kMaxBoards = 9;  // slots of the USB/DSP bus

}  // namespace tovelcmd
