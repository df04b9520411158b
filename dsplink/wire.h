#pragma once
// The wire vocabulary of the unit, defined once for every layer: byte order,
// the DSP frame and its limits, the "DSP1:" control codes, the frame device
// ids, the status block layout and the 32-byte board detail record.
// A leaf: standard headers only, so the simulator, the link, the boards, the
// server, the tools and the tests all include it.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace wire {

// ---- Byte order. A field starts at `offset`; the caller makes sure it lies
// inside `bytes`.

template <typename T>
constexpr T readLe(std::span<const std::uint8_t> bytes, std::size_t offset) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value = static_cast<T>(value | static_cast<T>(T{bytes[offset + i]} << (8 * i)));
    return value;
}

template <typename T>
constexpr T readBe(std::span<const std::uint8_t> bytes, std::size_t offset) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value = static_cast<T>(value << 8 | bytes[offset + i]);
    return value;
}

template <typename T>
constexpr void writeLe(std::span<std::uint8_t> bytes, std::size_t offset, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <typename T>
constexpr void writeBe(std::span<std::uint8_t> bytes, std::size_t offset, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
}

constexpr std::uint16_t readU16le(std::span<const std::uint8_t> b, std::size_t offset) {
    return readLe<std::uint16_t>(b, offset);
}
constexpr std::uint32_t readU32le(std::span<const std::uint8_t> b, std::size_t offset) {
    return readLe<std::uint32_t>(b, offset);
}
constexpr std::uint64_t readU64le(std::span<const std::uint8_t> b, std::size_t offset) {
    return readLe<std::uint64_t>(b, offset);
}
constexpr std::uint16_t readU16be(std::span<const std::uint8_t> b, std::size_t offset) {
    return readBe<std::uint16_t>(b, offset);
}
constexpr void writeU16le(std::span<std::uint8_t> b, std::size_t offset, std::uint16_t value) {
    writeLe(b, offset, value);
}
constexpr void writeU32le(std::span<std::uint8_t> b, std::size_t offset, std::uint32_t value) {
    writeLe(b, offset, value);
}
constexpr void writeU64le(std::span<std::uint8_t> b, std::size_t offset, std::uint64_t value) {
    writeLe(b, offset, value);
}
constexpr void writeU16be(std::span<std::uint8_t> b, std::size_t offset, std::uint16_t value) {
    writeBe(b, offset, value);
}

// A field in a byte order known only at run time (COFF files come in both).
template <typename T>
constexpr T read(std::span<const std::uint8_t> bytes, std::size_t offset, bool bigEndian) {
    return bigEndian ? readBe<T>(bytes, offset) : readLe<T>(bytes, offset);
}
template <typename T>
constexpr void write(std::span<std::uint8_t> bytes, std::size_t offset, T value, bool bigEndian) {
    bigEndian ? writeBe(bytes, offset, value) : writeLe(bytes, offset, value);
}

// ---- DSP frame: device, opcode, payload length (big-endian), payload. The
// driver takes at most kMaxFrame bytes. Sizes are int, as the link's
// primitives take them.
inline constexpr int kFrameHeader = 4;
inline constexpr int kMaxFrame = 8184;
inline constexpr int kMaxPayload = kMaxFrame - kFrameHeader;  // 8180

// Device ids of the frame header.
inline constexpr std::uint8_t kDeviceDsp = 1;           // commands to and replies from the DSP
inline constexpr std::uint8_t kDeviceBootStart = 4;     // reset the DSP, an image follows
inline constexpr std::uint8_t kDeviceBootChunk = 5;     // 4-byte LE address + data
inline constexpr std::uint8_t kDeviceBootEnd = 6;       // image complete, start the program
inline constexpr std::uint8_t kDeviceBoardDetail = 11;  // the 32-byte board detail
// Opcodes of the board detail exchange.
inline constexpr std::uint8_t kBoardDetailRead = 0;
inline constexpr std::uint8_t kBoardDetailWrite = 1;

// Writes a frame header for a payload of `payloadLength` bytes.
constexpr void putFrameHeader(std::span<std::uint8_t> frame, std::uint8_t device,
                              std::uint8_t opcode, std::uint16_t payloadLength) {
    frame[0] = device;
    frame[1] = opcode;
    writeU16be(frame, 2, payloadLength);
}

// ---- Control codes of the "DSP1:" driver: CTL_CODE(FILE_DEVICE_UNKNOWN, fn,
// METHOD_BUFFERED, FILE_ANY_ACCESS). The two reads fill the buffer passed in
// the INPUT position; the send takes its frame from the OUTPUT position.
inline constexpr std::uint32_t IOCTL_DSP_GET_STATUS = 0x00220424;  // fn 0x109
inline constexpr std::uint32_t IOCTL_DSP_SEND_DATA = 0x0022042C;   // fn 0x10B
inline constexpr std::uint32_t IOCTL_DSP_GET_DATA = 0x00220430;    // fn 0x10C

// ---- Status block: byte 0 device (1), byte 2 the DSP state, bytes 4..63
// detail, of which the last (63) is the DSP's sequence number.
inline constexpr int kStatusBlockSize = 64;
inline constexpr int kStatusDeviceOffset = 0;
inline constexpr int kStatusOffset = 2;
inline constexpr int kStatusDetailOffset = 4;
inline constexpr int kStatusDetailSize = kStatusBlockSize - kStatusDetailOffset;  // 60
inline constexpr int kSequenceOffset = 63;

// ---- Board detail (device 11): the board's identity, little-endian.
enum BoardTypeCode : std::uint32_t {
    kBoardTypePcm = 0,
    kBoardTypeRf = 1,
    kBoardTypeAnalog = 2,
    kBoardTypeIp = 3,  // IP(150), or IP(163) on the newer IP boards
    kBoardTypeIp155 = 4,
    kBoardTypeUnknown = 5,
};

struct BoardDetail {
    std::uint32_t serial = 0;  // 0: not read yet
    std::uint32_t info1 = 0;
    std::uint32_t hwVersion = 0;  // 2002 reads as "2.2"
    std::uint32_t info3 = 0;
    std::uint64_t info45 = 0;
    std::uint32_t boardType = 0;
    std::uint32_t info7 = 0;

    // Offsets of the fields in the record.
    static constexpr std::size_t kSerialAt = 0, kInfo1At = 4, kHwVersionAt = 8, kInfo3At = 12,
                                 kInfo45At = 16, kBoardTypeAt = 24, kInfo7At = 28;
    static constexpr std::size_t kSize = 32;
    using Bytes = std::array<std::uint8_t, kSize>;

    constexpr Bytes encode() const {
        Bytes out{};
        writeU32le(out, kSerialAt, serial);
        writeU32le(out, kInfo1At, info1);
        writeU32le(out, kHwVersionAt, hwVersion);
        writeU32le(out, kInfo3At, info3);
        writeU64le(out, kInfo45At, info45);
        writeU32le(out, kBoardTypeAt, boardType);
        writeU32le(out, kInfo7At, info7);
        return out;
    }
    static constexpr BoardDetail decode(std::span<const std::uint8_t, kSize> bytes) {
        return {readU32le(bytes, kSerialAt),    readU32le(bytes, kInfo1At),
                readU32le(bytes, kHwVersionAt), readU32le(bytes, kInfo3At),
                readU64le(bytes, kInfo45At),    readU32le(bytes, kBoardTypeAt),
                readU32le(bytes, kInfo7At)};
    }
    friend bool operator==(const BoardDetail&, const BoardDetail&) = default;
};

}  // namespace wire
