#pragma once
// The 32-byte identity record a board reports about itself (device 11 of the
// frame format): serial number, hardware version, board type and a few
// numbers the controller only passes on. Little-endian on the wire.
#include <array>
#include <cstdint>
#include <span>
#include <string>

struct BoardDetail {
    std::uint32_t serial = 0;  // 0: not read yet
    std::uint32_t info1 = 0;
    std::uint32_t hwVersion = 0;  // 2002 reads as "2.2"
    std::uint32_t info3 = 0;
    std::uint64_t info45 = 0;
    std::uint32_t boardType = 0;
    std::uint32_t info7 = 0;

    static constexpr std::size_t kSize = 32;
    using Bytes = std::array<std::uint8_t, kSize>;

    Bytes encode() const;
    static BoardDetail decode(std::span<const std::uint8_t, kSize> bytes);
    friend bool operator==(const BoardDetail&, const BoardDetail&) = default;
};

// Hardware versions the controller knows: 1003..1006 and 2000..2002.
bool isKnownHardwareVersion(std::uint32_t hwVersion);
// "%u.%u" of the thousands and the rest: 1006 -> "1.6", 2000 -> "2.0".
std::wstring hardwareVersionText(std::uint32_t hwVersion);

// Board type codes of the record.
enum BoardTypeCode : std::uint32_t {
    kBoardTypePcm = 0,
    kBoardTypeRf = 1,
    kBoardTypeAnalog = 2,
    kBoardTypeIp = 3,  // IP(150), or IP(163) on the newer IP boards
    kBoardTypeIp155 = 4,
    kBoardTypeUnknown = 5,
};
