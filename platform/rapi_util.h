#pragma once
// Stand-in for the platform library "RapiUtil.dll", whose ControlViaCmdLine
// hands the unit over to command-line control. The host has no such mode:
// the stand-in writes a debug line and returns.
#include "platform/win_types.h"

namespace host {

using ControlViaCmdLineFn = DWORD (*)(DWORD, DWORD, DWORD, DWORD, DWORD);
// Registers the stand-in module under "RapiUtil.dll".
void installRapiUtilStandIn();

}  // namespace host
