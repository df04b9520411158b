#pragma once
// How a link that has given up on its board tells the board registry that the
// board is gone. The registry connects itself at start; until then (and in
// tests that do not care) a removal report goes nowhere.
#include <functional>

#include "platform/win_types.h"

using DeviceChangeHook = std::function<void(DWORD event)>;

// Installs the receiver of removal reports; an empty function disconnects it.
void setDeviceChangeHook(DeviceChangeHook hook);

// Hands `event` (DBT_DEVICEREMOVECOMPLETE from the link) to the receiver, in
// the calling thread. Does nothing without a receiver.
void reportDeviceChange(DWORD event);
