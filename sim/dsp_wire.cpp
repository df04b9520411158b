#include "sim/dsp_wire.h"

#include <algorithm>

namespace sim {

std::vector<BYTE> makeFrame(BYTE device, BYTE opcode, std::span<const BYTE> payload) {
    const std::size_t n = std::min<std::size_t>(payload.size(), wire::kMaxPayload);
    std::vector<BYTE> frame(wire::kFrameHeader + n);
    wire::putFrameHeader(frame, device, opcode, static_cast<std::uint16_t>(n));
    std::copy_n(payload.begin(), n, frame.begin() + wire::kFrameHeader);
    return frame;
}

}  // namespace sim
