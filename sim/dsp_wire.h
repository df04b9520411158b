#pragma once
// What travels through the "DSP1:" driver: the three control codes, the frame
// header, the device ids of the frames, and the layout of the status block.
// Shared by the simulated boards and their tests.
#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "platform/win_types.h"

namespace sim {

// Control codes of the USB/DSP driver (device type 0x22, METHOD_BUFFERED).
// The two reads fill the buffer passed in the INPUT position; the send takes
// its frame from the buffer passed in the OUTPUT position.
inline constexpr DWORD kIoctlGetStatus = 0x00220424;  // function 0x109
inline constexpr DWORD kIoctlSendData = 0x0022042C;   // function 0x10B
inline constexpr DWORD kIoctlGetData = 0x00220430;    // function 0x10C

// Frame: device, opcode, payload length (high byte first), payload.
inline constexpr std::size_t kFrameHeaderSize = 4;
inline constexpr std::size_t kMaxFrameSize = 8184;
inline constexpr std::size_t kMaxPayloadSize = kMaxFrameSize - kFrameHeaderSize;

enum FrameDevice : BYTE {
    kDeviceDsp = 1,          // commands to and replies from the DSP program
    kDeviceImageStart = 4,   // boot: reset the DSP, an image follows
    kDeviceImageChunk = 5,   // boot: 4-byte little-endian address + data
    kDeviceImageEnd = 6,     // boot: image complete, start the program
    kDeviceBoardDetail = 11  // the board's 32-byte identity record
};

inline constexpr BYTE kBoardDetailRead = 0;
inline constexpr BYTE kBoardDetailWrite = 1;

// Status block: byte 0 device (1), byte 2 the DSP state, bytes 4..63 detail,
// of which the last (63) is the DSP's sequence number.
inline constexpr std::size_t kStatusBlockSize = 64;
inline constexpr std::size_t kStatusDeviceOffset = 0;
inline constexpr std::size_t kStatusStateOffset = 2;
inline constexpr std::size_t kStatusDetailOffset = 4;
inline constexpr std::size_t kStatusDetailSize = 60;
inline constexpr std::size_t kStatusSequenceOffset = 63;
using StatusBlock = std::array<BYTE, kStatusBlockSize>;

// Builds a frame from its header fields and payload (payload cut at the
// largest size a frame can carry).
std::vector<BYTE> makeFrame(BYTE device, BYTE opcode, std::span<const BYTE> payload);

// Payload length announced by a frame header (which may differ from what
// actually arrived).
inline std::size_t announcedPayloadSize(std::span<const BYTE> frame) {
    return frame.size() < kFrameHeaderSize ? 0 : (std::size_t{frame[2]} << 8) | frame[3];
}

// Little-endian helpers for reply layouts.
void putLe16(std::span<BYTE> out, std::size_t offset, std::uint16_t value);
void putLe32(std::span<BYTE> out, std::size_t offset, std::uint32_t value);
void putLe64(std::span<BYTE> out, std::size_t offset, std::uint64_t value);
std::uint16_t getLe16(std::span<const BYTE> in, std::size_t offset);
std::uint32_t getLe32(std::span<const BYTE> in, std::size_t offset);
std::uint64_t getLe64(std::span<const BYTE> in, std::size_t offset);

}  // namespace sim
