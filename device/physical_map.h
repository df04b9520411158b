#pragma once
// Mapping a block of physical registers into the process.
#include "platform/win_types.h"

// Maps `size` bytes of physical registers starting at `physicalAddress`
// (whole pages around them) read-write and uncached. Answers the address of
// the first register, or null after writing the reason to the debug output.
void* MapPhysicalAddr(DWORD physicalAddress, DWORD size);

// Gives back a mapping made by MapPhysicalAddr (null is ignored).
void UnmapPhysicalAddr(void* mapped);
