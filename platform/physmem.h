#pragma once
// Physical register blocks (VirtualAlloc/VirtualCopy/VirtualFree). The host
// has no device registers of its own: a backend (simulated hardware) claims a
// range of the physical address space and gets its view of the words there;
// the system reserves address space and maps physical pages into it as it
// would on the original, and then reads and writes the very same memory.
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/win_types.h"

namespace host {

inline constexpr DWORD kPhysicalPageSize = 4096;

// Allocation types and page protections, with the original's values.
inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_RESERVE = 0x2000;
inline constexpr DWORD MEM_RELEASE = 0x8000;
inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_NOCACHE = 0x200;
inline constexpr DWORD PAGE_PHYSICAL =
    0x400;  // VirtualCopy: the source is a physical address / 256

// Claims [physicalBase, physicalBase + size) for a backend. Both must be
// multiples of kPhysicalPageSize and the range must not overlap another
// region. Answers the backend's view of the region's 32-bit words (zeroed),
// valid until the region is unregistered, or an empty span on failure.
std::span<std::uint32_t> registerPhysicalRegion(DWORD physicalBase, DWORD size);
// Gives the range back; the backend must not use its span afterwards.
// Mappings the system already made of it stay usable (they keep the pages
// alive), so a stale register pointer never faults.
void unregisterPhysicalRegion(DWORD physicalBase);

// Reserves address space (MEM_RESERVE only; `address` must be null). The
// size is rounded up to whole pages. NULL with ERROR_INVALID_PARAMETER for a
// size of 0 or other requests, ERROR_NOT_ENOUGH_MEMORY when the host refuses.
void* VirtualAlloc(void* address, DWORD size, DWORD allocationType, DWORD protect);
// Maps pages into a reservation. Only the physical form is supported: with
// PAGE_PHYSICAL in `protect`, `source` is the physical address divided by
// 256. `dest` must be page-aligned and [dest, dest + size) inside one
// reservation; the physical pages must lie inside one registered region.
// FALSE with ERROR_INVALID_PARAMETER otherwise (ERROR_NOT_SUPPORTED for the
// virtual form).
BOOL VirtualCopy(void* dest, void* source, DWORD size, DWORD protect);
// Releases a whole reservation: `address` is its start, size 0, MEM_RELEASE.
BOOL VirtualFree(void* address, DWORD size, DWORD freeType);

// For tests: the size of the live reservation starting at `address` (0 when
// there is none), and how many reservations are live.
std::size_t reservationSizeForTest(const void* address);
std::size_t reservationCountForTest();

}  // namespace host
