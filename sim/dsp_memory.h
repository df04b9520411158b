#pragma once
// The DSP's memory as a boot fills it: sparse over the whole 32-bit address
// space, because images place sections far apart (0x00000000, 0x11800000,
// 0x80000000, ...). Stored in 4 KiB pages that exist only once written, with
// a record of which bytes were written. The total is bounded so a runaway or
// hostile image cannot exhaust the host: writes that would need a page beyond
// the bound are dropped and counted.
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "platform/win_types.h"

namespace sim {

class DspMemory {
  public:
    static constexpr std::size_t kPageSize = 4096;
    static constexpr std::size_t kDefaultLimitBytes = 64u << 20;

    explicit DspMemory(std::size_t limitBytes = kDefaultLimitBytes);

    // Writes `data` at `address`; bytes that would run past the end of the
    // address space are cut. Answers how many bytes were stored.
    std::size_t write(std::uint32_t address, std::span<const BYTE> data);
    // Reads `size` bytes; bytes never written read as 0.
    std::vector<BYTE> read(std::uint32_t address, std::size_t size) const;
    // Whether every byte of the range has been written since the last clear.
    bool isWritten(std::uint32_t address, std::size_t size) const;

    void clear();
    std::size_t pageCount() const { return pages_.size(); }
    std::size_t bytesWritten() const { return bytesWritten_; }
    std::size_t bytesDropped() const { return bytesDropped_; }
    std::size_t limitBytes() const { return limitPages_ * kPageSize; }

  private:
    struct Page {
        std::array<BYTE, kPageSize> bytes{};
        std::bitset<kPageSize> written;
    };
    Page* pageFor(std::uint32_t pageIndex);  // creates it when within the bound

    std::size_t limitPages_;
    std::map<std::uint32_t, std::unique_ptr<Page>> pages_;
    std::size_t bytesWritten_ = 0;  // counts each write, rewrites included
    std::size_t bytesDropped_ = 0;
};

}  // namespace sim
