#include "sim/dsp_memory.h"

#include <algorithm>

namespace sim {

namespace {
constexpr std::uint64_t kAddressSpace = std::uint64_t{1} << 32;
}

DspMemory::DspMemory(std::size_t limitBytes)
    : limitPages_((limitBytes + kPageSize - 1) / kPageSize) {}

DspMemory::Page* DspMemory::pageFor(std::uint32_t pageIndex) {
    auto it = pages_.find(pageIndex);
    if (it != pages_.end()) return it->second.get();
    if (pages_.size() >= limitPages_) return nullptr;
    auto [pos, inserted] = pages_.emplace(pageIndex, std::make_unique<Page>());
    return pos->second.get();
}

std::size_t DspMemory::write(std::uint32_t address, std::span<const BYTE> data) {
    std::uint64_t at = address;
    const std::uint64_t end = std::min<std::uint64_t>(at + data.size(), kAddressSpace);
    bytesDropped_ += data.size() - static_cast<std::size_t>(end - at);
    std::size_t stored = 0;
    std::size_t from = 0;
    while (at < end) {
        const auto pageIndex = static_cast<std::uint32_t>(at / kPageSize);
        const auto offset = static_cast<std::size_t>(at % kPageSize);
        const auto n =
            static_cast<std::size_t>(std::min<std::uint64_t>(kPageSize - offset, end - at));
        if (Page* page = pageFor(pageIndex)) {
            std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(from), n,
                        page->bytes.begin() + static_cast<std::ptrdiff_t>(offset));
            for (std::size_t i = 0; i < n; ++i) page->written.set(offset + i);
            stored += n;
        } else {
            bytesDropped_ += n;
        }
        at += n;
        from += n;
    }
    bytesWritten_ += stored;
    return stored;
}

std::vector<BYTE> DspMemory::read(std::uint32_t address, std::size_t size) const {
    std::vector<BYTE> out(size, 0);
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint64_t at = std::uint64_t{address} + i;
        if (at >= kAddressSpace) break;
        auto it = pages_.find(static_cast<std::uint32_t>(at / kPageSize));
        if (it != pages_.end()) out[i] = it->second->bytes[at % kPageSize];
    }
    return out;
}

bool DspMemory::isWritten(std::uint32_t address, std::size_t size) const {
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint64_t at = std::uint64_t{address} + i;
        if (at >= kAddressSpace) return false;
        auto it = pages_.find(static_cast<std::uint32_t>(at / kPageSize));
        if (it == pages_.end() || !it->second->written.test(at % kPageSize)) return false;
    }
    return true;
}

void DspMemory::clear() {
    pages_.clear();
    bytesWritten_ = 0;
    bytesDropped_ = 0;
}

}  // namespace sim
