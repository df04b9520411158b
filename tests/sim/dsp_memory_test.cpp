// The sparse DSP memory: pages on demand, written-byte tracking, bounds.
#include <gtest/gtest.h>

#include <vector>

#include "sim/dsp_memory.h"

namespace {

using sim::DspMemory;

TEST(DspMemory, StoresFarApartWritesInFewPages) {
    DspMemory memory;
    const std::vector<BYTE> data = {1, 2, 3};
    memory.write(0x00000000, data);
    memory.write(0x80000000, data);
    memory.write(0xFFFFFFFD, data);
    EXPECT_EQ(memory.pageCount(), 3u);
    EXPECT_EQ(memory.read(0xFFFFFFFD, 3), data);
    EXPECT_EQ(memory.read(0x40000000, 2), (std::vector<BYTE>{0, 0}));
    EXPECT_EQ(memory.bytesWritten(), 9u);
}

TEST(DspMemory, WriteRunningPastTheAddressSpaceIsCut) {
    DspMemory memory;
    EXPECT_EQ(memory.write(0xFFFFFFFE, std::vector<BYTE>{1, 2, 3, 4}), 2u);
    EXPECT_EQ(memory.bytesDropped(), 2u);
    EXPECT_FALSE(memory.isWritten(0x0, 1));
    EXPECT_FALSE(memory.isWritten(0xFFFFFFFF, 2));
    EXPECT_TRUE(memory.isWritten(0xFFFFFFFE, 2));
}

TEST(DspMemory, RefusesPagesBeyondItsBoundOf64MiBUnlessToldOtherwise) {
    DspMemory memory(2 * DspMemory::kPageSize);
    const std::vector<BYTE> data(10, 0x5A);
    memory.write(0x1000, data);
    memory.write(0x9000, data);
    EXPECT_EQ(memory.write(0x20000, data), 0u);
    EXPECT_EQ(memory.bytesDropped(), 10u);
    EXPECT_EQ(memory.pageCount(), 2u);
    EXPECT_EQ(memory.write(0x1100, data), 10u);  // existing pages still take writes
    EXPECT_EQ(DspMemory().limitBytes(), std::size_t{64} << 20);
}

}  // namespace
