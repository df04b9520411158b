#include "boards/board_detail.h"

#include <algorithm>

#include "platform/text.h"

namespace {

void putLe(BoardDetail::Bytes& out, std::size_t offset, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
        out[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint64_t getLe(std::span<const std::uint8_t, BoardDetail::kSize> in, std::size_t offset,
                    std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value |= std::uint64_t{in[offset + i]} << (8 * i);
    return value;
}

}  // namespace

BoardDetail::Bytes BoardDetail::encode() const {
    Bytes out{};
    putLe(out, 0, serial, 4);
    putLe(out, 4, info1, 4);
    putLe(out, 8, hwVersion, 4);
    putLe(out, 12, info3, 4);
    putLe(out, 16, info45, 8);
    putLe(out, 24, boardType, 4);
    putLe(out, 28, info7, 4);
    return out;
}

BoardDetail BoardDetail::decode(std::span<const std::uint8_t, kSize> bytes) {
    BoardDetail d;
    d.serial = static_cast<std::uint32_t>(getLe(bytes, 0, 4));
    d.info1 = static_cast<std::uint32_t>(getLe(bytes, 4, 4));
    d.hwVersion = static_cast<std::uint32_t>(getLe(bytes, 8, 4));
    d.info3 = static_cast<std::uint32_t>(getLe(bytes, 12, 4));
    d.info45 = getLe(bytes, 16, 8);
    d.boardType = static_cast<std::uint32_t>(getLe(bytes, 24, 4));
    d.info7 = static_cast<std::uint32_t>(getLe(bytes, 28, 4));
    return d;
}

bool isKnownHardwareVersion(std::uint32_t hwVersion) {
    constexpr std::uint32_t known[] = {1003, 1004, 1005, 1006, 2000, 2001, 2002};
    return std::find(std::begin(known), std::end(known), hwVersion) != std::end(known);
}

std::wstring hardwareVersionText(std::uint32_t hwVersion) {
    return host::wformat(L"%u.%u", hwVersion / 1000, hwVersion % 1000);
}
