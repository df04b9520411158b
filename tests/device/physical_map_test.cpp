#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

#include "device/physical_map.h"
#include "platform/physmem.h"
#include "tests/support/test_support.h"

namespace {

constexpr DWORD kBase = 0x50000000;

struct Region {
    Region(DWORD base, DWORD size) : base(base), words(host::registerPhysicalRegion(base, size)) {}
    ~Region() { host::unregisterPhysicalRegion(base); }
    DWORD base;
    std::span<std::uint32_t> words;
};

std::uint32_t load(volatile void* p, std::size_t wordIndex = 0) {
    return std::atomic_ref<std::uint32_t>(
               const_cast<std::uint32_t*>(static_cast<volatile std::uint32_t*>(p))[wordIndex])
        .load();
}

TEST(MapPhysicalAddr, WholePageBlockIsOnePageAtTheReservationItself) {
    Region region(0x40A00000, 0x1000);
    ASSERT_FALSE(region.words.empty());
    void* p = MapPhysicalAddr(0x40A00000, 0x1000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(host::reservationSizeForTest(p), 4096u);
    // The mapping and the backend see the same registers.
    region.words[4] = 0x12345678;
    EXPECT_EQ(load(p, 4), 0x12345678u);
    static_cast<volatile std::uint32_t*>(p)[3] = 0xCAFE;
    EXPECT_EQ(region.words[3], 0xCAFEu);
    UnmapPhysicalAddr(p);
    EXPECT_EQ(host::reservationCountForTest(), 0u);
}

// A block inside a page keeps its offset; one across a page boundary gets both pages.
TEST(MapPhysicalAddr, BlockKeepsItsOffsetAndGetsEveryPageItTouches) {
    const struct {
        DWORD offset;
        std::size_t pages;
        std::size_t wordOfRegion, wordOfBlock;
    } cases[] = {{0x10, 1, 0x10 / 4, 0}, {0xFF0, 2, 0x1000 / 4, 4}};
    for (const auto& c : cases) {
        Region region(kBase, 0x2000);
        auto* p = static_cast<BYTE*>(MapPhysicalAddr(kBase + c.offset, 0x20));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(host::reservationSizeForTest(p - c.offset), 4096u * c.pages);
        region.words[c.wordOfRegion] = 9;
        EXPECT_EQ(load(p, c.wordOfBlock), 9u);
        UnmapPhysicalAddr(p);
        EXPECT_EQ(host::reservationCountForTest(), 0u);
    }
}

TEST(MapPhysicalAddr, BadBlockFailsAndReleasesTheReservation) {
    const wchar_t* const copyFails = L"\tMapPhysicalAddr : return false from VirtualCopy(). \r\n";
    const wchar_t* const reserveFails = L"\tMapPhysicalAddr : Error Return. \r\n";
    const struct {
        DWORD address, size;
        const wchar_t* says;
    } cases[] = {{0x60000000, 0x1000, copyFails},   // unbacked
                 {kBase + 0xFF0, 0x20, copyFails},  // partly beyond the region
                 {kBase, 0, reserveFails},
                 {kBase + 0x10, 0xFFFFFFF8u, reserveFails}};
    Region region(kBase, 0x1000);
    for (const auto& c : cases) {
        testing_support::DebugCapture debug;
        EXPECT_EQ(MapPhysicalAddr(c.address, c.size), nullptr) << c.address << "+" << c.size;
        EXPECT_EQ(debug.texts(), std::vector<std::wstring>{c.says});
        EXPECT_EQ(host::reservationCountForTest(), 0u);
    }
}

TEST(PhysicalRegions, MustBePageAlignedAndMustNotOverlap) {
    EXPECT_TRUE(host::registerPhysicalRegion(kBase + 0x10, 0x1000).empty());
    EXPECT_TRUE(host::registerPhysicalRegion(kBase, 0x800).empty());
    EXPECT_TRUE(host::registerPhysicalRegion(0xFFFFF000, 0x2000).empty());
    Region region(kBase, 0x2000);
    ASSERT_EQ(region.words.size(), 0x2000u / 4);
    EXPECT_TRUE(host::registerPhysicalRegion(kBase + 0x1000, 0x1000).empty());
    Region next(kBase + 0x2000, 0x1000);
    EXPECT_FALSE(next.words.empty());
}

TEST(PhysicalRegions, VirtualCopyWantsAReservationAndThePhysicalForm) {
    Region region(kBase, 0x1000);
    void* r = host::VirtualAlloc(nullptr, 100, host::MEM_RESERVE, host::PAGE_NOACCESS);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(host::reservationSizeForTest(r), 4096u);
    auto* physical = reinterpret_cast<void*>(std::uintptr_t{kBase >> 8});
    EXPECT_FALSE(host::VirtualCopy(r, physical, 0x1000, host::PAGE_READWRITE));
    int notReserved = 0;
    EXPECT_FALSE(host::VirtualCopy(&notReserved, physical, 0x1000,
                                   host::PAGE_READWRITE | host::PAGE_PHYSICAL));
    EXPECT_FALSE(
        host::VirtualCopy(r, physical, 0x2000, host::PAGE_READWRITE | host::PAGE_PHYSICAL));
    EXPECT_TRUE(host::VirtualCopy(r, physical, 0x1000, host::PAGE_READWRITE | host::PAGE_PHYSICAL));
    EXPECT_FALSE(host::VirtualFree(r, 4096, host::MEM_RELEASE));
    EXPECT_TRUE(host::VirtualFree(r, 0, host::MEM_RELEASE));
    EXPECT_FALSE(host::VirtualFree(r, 0, host::MEM_RELEASE));
}

}  // namespace
