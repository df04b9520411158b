#include "sim/dsp_wire.h"

#include <algorithm>

namespace sim {

std::vector<BYTE> makeFrame(BYTE device, BYTE opcode, std::span<const BYTE> payload) {
    const std::size_t n = std::min(payload.size(), kMaxPayloadSize);
    std::vector<BYTE> frame(kFrameHeaderSize + n);
    frame[0] = device;
    frame[1] = opcode;
    frame[2] = static_cast<BYTE>(n >> 8);
    frame[3] = static_cast<BYTE>(n & 0xFF);
    std::copy_n(payload.begin(), n, frame.begin() + kFrameHeaderSize);
    return frame;
}

void putLe16(std::span<BYTE> out, std::size_t offset, std::uint16_t value) {
    for (std::size_t i = 0; i < 2; ++i) out[offset + i] = static_cast<BYTE>(value >> (8 * i));
}

void putLe32(std::span<BYTE> out, std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) out[offset + i] = static_cast<BYTE>(value >> (8 * i));
}

void putLe64(std::span<BYTE> out, std::size_t offset, std::uint64_t value) {
    for (std::size_t i = 0; i < 8; ++i) out[offset + i] = static_cast<BYTE>(value >> (8 * i));
}

std::uint16_t getLe16(std::span<const BYTE> in, std::size_t offset) {
    return static_cast<std::uint16_t>(in[offset] | (in[offset + 1] << 8));
}

std::uint32_t getLe32(std::span<const BYTE> in, std::size_t offset) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i) v |= std::uint32_t{in[offset + i]} << (8 * i);
    return v;
}

std::uint64_t getLe64(std::span<const BYTE> in, std::size_t offset) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < 8; ++i) v |= std::uint64_t{in[offset + i]} << (8 * i);
    return v;
}

}  // namespace sim
