#pragma once
// What the boot loader sends of a read image: which records pass its skip
// rules, and in how many chunks of at most kBootChunkBytes data bytes.
#include <cstdint>
#include <span>

#include "dsplink/coff_section.h"

namespace coffkit {

inline constexpr std::uint32_t kBootChunkBytes = 820;

// The boot loader's skip rules: a record named ".info", one without a file
// position or size, and DSECT or NOLOAD sections are not sent.
bool bootLoaderSends(const char* recordedName, std::uint32_t filePos, std::uint32_t size,
                     std::uint32_t flags);
bool bootLoaderSends(const CoffSection& record);

// Chunks a section of `size` bytes goes out in.
constexpr std::uint32_t bootChunkCount(std::uint32_t size) {
    return size / kBootChunkBytes + (size % kBootChunkBytes != 0 ? 1 : 0);
}

struct BootPlan {
    int sections = 0;
    std::uint64_t bytes = 0;
    std::uint64_t chunks = 0;
};

BootPlan planBoot(std::span<const CoffSection> records);

}  // namespace coffkit
