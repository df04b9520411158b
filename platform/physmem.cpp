#include "platform/physmem.h"

#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "platform/last_error.h"
#include "platform/no_destructor.h"

namespace host {
namespace {

// A region lives in a memory file so that the backend's view and every
// mapping the system makes are aliases of the same pages.
struct Region {
    DWORD size = 0;
    int fd = -1;
    void* view = nullptr;
};

struct PhysicalMemory {
    std::mutex mutex;
    std::map<DWORD, Region> regions;                 // by physical base
    std::map<std::uintptr_t, std::size_t> reserved;  // reservation start -> length
};

PhysicalMemory& memory() {
    static NoDestructor<PhysicalMemory> m;
    return *m;
}

bool hostPagesFit() {
    return ::sysconf(_SC_PAGESIZE) == static_cast<long>(kPhysicalPageSize);
}

bool pageAligned(std::uint64_t value) {
    return value % kPhysicalPageSize == 0;
}

std::uint64_t roundUpToPage(std::uint64_t value) {
    return (value + kPhysicalPageSize - 1) / kPhysicalPageSize * kPhysicalPageSize;
}

BOOL fail(DWORD error) {
    SetLastError(error);
    return FALSE_;
}

}  // namespace

std::span<std::uint32_t> registerPhysicalRegion(DWORD physicalBase, DWORD size) {
    // Mapping works in host pages; a host with larger pages cannot alias 4-KiB blocks.
    if (size == 0 || !pageAligned(physicalBase) || !pageAligned(size) || !hostPagesFit()) return {};
    const std::uint64_t end = std::uint64_t{physicalBase} + size;
    if (end > 0x100000000ull) return {};
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    for (const auto& [base, region] : m.regions)
        if (physicalBase < std::uint64_t{base} + region.size && base < end) return {};
    Region region;
    region.size = size;
    region.fd = ::memfd_create("tovel-physical", MFD_CLOEXEC);
    if (region.fd < 0) return {};
    if (::ftruncate(region.fd, size) != 0) {
        ::close(region.fd);
        return {};
    }
    region.view = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, region.fd, 0);
    if (region.view == MAP_FAILED) {
        ::close(region.fd);
        return {};
    }
    auto* words = static_cast<std::uint32_t*>(region.view);
    m.regions.emplace(physicalBase, region);
    return {words, size / sizeof(std::uint32_t)};
}

void unregisterPhysicalRegion(DWORD physicalBase) {
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto it = m.regions.find(physicalBase);
    if (it == m.regions.end()) return;
    ::munmap(it->second.view, it->second.size);
    ::close(it->second.fd);
    m.regions.erase(it);
}

void* VirtualAlloc(void* address, DWORD size, DWORD allocationType, DWORD protect) {
    if (address != nullptr || size == 0 || allocationType != MEM_RESERVE ||
        protect != PAGE_NOACCESS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::size_t length = roundUpToPage(size);
    void* p =
        ::mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    m.reserved[reinterpret_cast<std::uintptr_t>(p)] = length;
    return p;
}

BOOL VirtualCopy(void* dest, void* source, DWORD size, DWORD protect) {
    if (!(protect & PAGE_PHYSICAL)) return fail(ERROR_NOT_SUPPORTED);
    int prot = 0;
    switch (protect & ~(PAGE_PHYSICAL | PAGE_NOCACHE)) {
        case PAGE_NOACCESS:
            prot = PROT_NONE;
            break;
        case PAGE_READONLY:
            prot = PROT_READ;
            break;
        case PAGE_READWRITE:
            prot = PROT_READ | PROT_WRITE;
            break;
        default:
            return fail(ERROR_INVALID_PARAMETER);
    }
    const auto to = reinterpret_cast<std::uintptr_t>(dest);
    const std::uint64_t physical = std::uint64_t{reinterpret_cast<std::uintptr_t>(source)} << 8;
    const std::uint64_t length = roundUpToPage(size);
    if (size == 0 || !pageAligned(to) || !pageAligned(physical))
        return fail(ERROR_INVALID_PARAMETER);

    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto r = m.reserved.upper_bound(to);
    if (r == m.reserved.begin()) return fail(ERROR_INVALID_PARAMETER);
    --r;
    if (to + length > r->first + r->second) return fail(ERROR_INVALID_PARAMETER);

    if (physical > 0xFFFFFFFFu) return fail(ERROR_INVALID_PARAMETER);
    auto g = m.regions.upper_bound(static_cast<DWORD>(physical));
    if (g == m.regions.begin()) return fail(ERROR_INVALID_PARAMETER);
    --g;
    const std::uint64_t offset = physical - g->first;
    if (offset + length > g->second.size) return fail(ERROR_INVALID_PARAMETER);

    void* p = ::mmap(dest, length, prot, MAP_SHARED | MAP_FIXED, g->second.fd,
                     static_cast<off_t>(offset));
    if (p == MAP_FAILED) return fail(ERROR_NOT_ENOUGH_MEMORY);
    return TRUE_;
}

BOOL VirtualFree(void* address, DWORD size, DWORD freeType) {
    if (size != 0 || freeType != MEM_RELEASE) return fail(ERROR_INVALID_PARAMETER);
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto it = m.reserved.find(reinterpret_cast<std::uintptr_t>(address));
    if (it == m.reserved.end()) return fail(ERROR_INVALID_PARAMETER);
    ::munmap(address, it->second);
    m.reserved.erase(it);
    return TRUE_;
}

std::size_t reservationSizeForTest(const void* address) {
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    auto it = m.reserved.find(reinterpret_cast<std::uintptr_t>(address));
    return it == m.reserved.end() ? 0 : it->second;
}

std::size_t reservationCountForTest() {
    auto& m = memory();
    std::lock_guard<std::mutex> lock(m.mutex);
    return m.reserved.size();
}

}  // namespace host
