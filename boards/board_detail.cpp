#include "boards/board_detail.h"

#include <algorithm>

#include "platform/text.h"

bool isKnownHardwareVersion(std::uint32_t hwVersion) {
    constexpr std::uint32_t known[] = {1003, 1004, 1005, 1006, 2000, 2001, 2002};
    return std::find(std::begin(known), std::end(known), hwVersion) != std::end(known);
}

std::wstring hardwareVersionText(std::uint32_t hwVersion) {
    return host::wformat(L"%u.%u", hwVersion / 1000, hwVersion % 1000);
}
