#pragma once
// The 32-byte identity record a board reports about itself (device 11 of the
// frame format): serial number, hardware version, board type and a few
// numbers the controller only passes on. Its layout and codec are part of
// the wire vocabulary; the controller adds what the versions mean.
#include <cstdint>
#include <string>

#include "dsplink/wire.h"

using wire::BoardDetail;
using enum wire::BoardTypeCode;

// Hardware versions the controller knows: 1003..1006 and 2000..2002.
bool isKnownHardwareVersion(std::uint32_t hwVersion);
// "%u.%u" of the thousands and the rest: 1006 -> "1.6", 2000 -> "2.0".
std::wstring hardwareVersionText(std::uint32_t hwVersion);
