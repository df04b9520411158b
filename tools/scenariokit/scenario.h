#pragma once
// A simulated unit described in a file: the boards it starts with, extra
// firmware behaviour per board, and a timeline of hardware events. A plain
// value; scenario_file.h reads it, scenario_runner.h plays it.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/win_types.h"
#include "sim/board_spec.h"
#include "sim/dsp_board.h"

namespace scenario {

inline constexpr int kFirstSlot = 1;
inline constexpr int kLastSlot = 9;

struct Board {
    sim::BoardKind kind = sim::BoardKind::T1;
    std::uint32_t serial = 0;
    DWORD latencyMs = 0;  // every transfer of the board takes this long
    std::vector<sim::ReplyRule> replies;
    friend bool operator==(const Board&, const Board&) = default;
};

enum class Action { Attach, Detach, Fault, Clear, PowerFail, Knob };

struct Event {
    DWORD atMs = 0;  // after the scenario starts
    Action action = Action::Detach;
    int slot = 0;  // Attach: the [[board]] entry (and slot) to plug in; 0 when unused
    // What the simulated hardware's console is told ("fault 1 hang"); for
    // Attach a description only.
    std::string command;
    friend bool operator==(const Event&, const Event&) = default;
};

struct Scenario {
    std::string file;
    std::string platform = "Kestrix Platform";  // the registry's platform name on a fresh root
    bool boardsAtStart = true;
    std::vector<Board> boards;  // boards[i] goes to slot i + 1
    std::vector<Event> events;  // in time order (stable for equal times)
};

}  // namespace scenario
