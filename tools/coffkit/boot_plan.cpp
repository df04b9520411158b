#include "tools/coffkit/boot_plan.h"

#include <cstring>

namespace coffkit {

bool bootLoaderSends(const char* recordedName, std::uint32_t filePos, std::uint32_t size,
                     std::uint32_t flags) {
    return std::strcmp(recordedName, ".info") != 0 && filePos != 0 && size != 0 &&
           (flags & (STYP_DSECT | STYP_NOLOAD)) == 0;
}

bool bootLoaderSends(const CoffSection& record) {
    char name[sizeof record.name + 1] = {};
    std::memcpy(name, record.name, sizeof record.name);
    return bootLoaderSends(name, record.filePos, record.size, record.flags);
}

BootPlan planBoot(std::span<const CoffSection> records) {
    BootPlan plan;
    for (const CoffSection& r : records) {
        if (!bootLoaderSends(r)) continue;
        ++plan.sections;
        plan.bytes += r.size;
        plan.chunks += bootChunkCount(r.size);
    }
    return plan;
}

}  // namespace coffkit
