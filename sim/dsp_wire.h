#pragma once
// Frames as the simulated boards build and read them. The vocabulary itself
// (control codes, frame limits, device ids, status block layout, byte order)
// is the unit's one wire vocabulary in dsplink/wire.h.
#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "dsplink/wire.h"
#include "platform/win_types.h"

namespace sim {

using StatusBlock = std::array<BYTE, wire::kStatusBlockSize>;

// Builds a frame from its header fields and payload (payload cut at the
// largest size a frame can carry).
std::vector<BYTE> makeFrame(BYTE device, BYTE opcode, std::span<const BYTE> payload);

// Payload length announced by a frame header (which may differ from what
// actually arrived).
inline std::size_t announcedPayloadSize(std::span<const BYTE> frame) {
    return frame.size() < wire::kFrameHeader ? 0 : wire::readU16be(frame, 2);
}

}  // namespace sim
