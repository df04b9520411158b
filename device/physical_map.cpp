#include "device/physical_map.h"

#include <cstdint>

#include "platform/debug_out.h"
#include "platform/physmem.h"

namespace {
constexpr DWORD kPage = 4096;
}

void* MapPhysicalAddr(DWORD physicalAddress, DWORD size) {
    const DWORD base = physicalAddress & ~(kPage - 1);
    const DWORD offset = physicalAddress - base;
    // Computed wide so that a huge size fails instead of wrapping to a short mapping.
    const std::uint64_t wideLength =
        (std::uint64_t{offset} + size + kPage - 1) & ~std::uint64_t{kPage - 1};
    const DWORD length = static_cast<DWORD>(wideLength);

    void* reservation =
        wideLength == length
            ? host::VirtualAlloc(nullptr, length, host::MEM_RESERVE, host::PAGE_NOACCESS)
            : nullptr;
    if (!reservation) {
        host::NKDbgPrintfW(L"\tMapPhysicalAddr : Error Return. \r\n");
        return nullptr;
    }
    // The physical form of VirtualCopy takes the address divided by 256.
    void* physicalPages = reinterpret_cast<void*>(static_cast<std::uintptr_t>(base >> 8));
    if (!host::VirtualCopy(reservation, physicalPages, length,
                           host::PAGE_READWRITE | host::PAGE_NOCACHE | host::PAGE_PHYSICAL)) {
        host::NKDbgPrintfW(L"\tMapPhysicalAddr : return false from VirtualCopy(). \r\n");
        host::VirtualFree(reservation, 0, host::MEM_RELEASE);
        return nullptr;
    }
    return static_cast<BYTE*>(reservation) + offset;
}

void UnmapPhysicalAddr(void* mapped) {
    if (!mapped) return;
    const auto address = reinterpret_cast<std::uintptr_t>(mapped);
    host::VirtualFree(reinterpret_cast<void*>(address & ~std::uintptr_t{kPage - 1}), 0,
                      host::MEM_RELEASE);
}
