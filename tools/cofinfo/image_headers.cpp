#include "tools/cofinfo/image_headers.h"

#include <algorithm>
#include <array>
#include <fstream>

#include "dsplink/wire.h"

namespace cofinfo {
namespace {

constexpr std::uint64_t kSymbolEntrySize = 18;
constexpr std::size_t kMaxLongName = 200;

class FileBytes {
  public:
    explicit FileBytes(const std::string& path) : in_(path, std::ios::binary) {
        if (in_) {
            in_.seekg(0, std::ios::end);
            size_ = static_cast<std::uint64_t>(in_.tellg());
        }
    }
    bool isOpen() const { return static_cast<bool>(in_); }
    std::uint64_t size() const { return size_; }

    // Up to `count` bytes from `pos`, fewer at the end of the file.
    std::vector<std::uint8_t> read(std::uint64_t pos, std::uint64_t count) {
        if (pos >= size_) return {};
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(std::min(count, size_ - pos)));
        in_.clear();
        in_.seekg(static_cast<std::streamoff>(pos));
        in_.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(in_.gcount(), 0)));
        return bytes;
    }

  private:
    std::ifstream in_;
    std::uint64_t size_ = 0;
};

OptionalHeader decodeOptional(const std::vector<std::uint8_t>& b, bool be) {
    return {wire::read<std::uint16_t>(b, 0, be),  wire::read<std::uint16_t>(b, 2, be),
            wire::read<std::uint32_t>(b, 4, be),  wire::read<std::uint32_t>(b, 8, be),
            wire::read<std::uint32_t>(b, 12, be), wire::read<std::uint32_t>(b, 16, be),
            wire::read<std::uint32_t>(b, 20, be), wire::read<std::uint32_t>(b, 24, be)};
}

std::string stringTableName(FileBytes& file, const coff::FileHeader& header, std::uint32_t offset) {
    const std::uint64_t table =
        std::uint64_t{header.symbolTablePos} + kSymbolEntrySize * header.symbolCount;
    const std::vector<std::uint8_t> bytes = file.read(table + offset, kMaxLongName);
    const auto end = std::find(bytes.begin(), bytes.end(), std::uint8_t{0});
    return std::string(bytes.begin(), end);
}

}  // namespace

std::optional<ImageHeaders> readImageHeaders(const std::string& hostPath) {
    FileBytes file(hostPath);
    if (!file.isOpen()) return std::nullopt;
    ImageHeaders image;
    image.fileSize = file.size();

    const std::vector<std::uint8_t> raw = file.read(0, coff::kFileHeaderSize);
    if (raw.size() < coff::kFileHeaderSize) return image;
    image.headerRead = true;
    image.header = coff::decodeFileHeader(
        std::span<const std::uint8_t, coff::kFileHeaderSize>(raw.data(), raw.size()));
    image.c6000 = coff::isC6000TargetId(image.header.targetId);
    if (!image.c6000) return image;
    const bool be = image.header.bigEndian;

    const std::uint64_t optSize = image.header.optionalHeaderSize;
    if (optSize == coff::kOptionalHeaderSize) {
        const std::vector<std::uint8_t> opt = file.read(coff::kFileHeaderSize, optSize);
        if (opt.size() == optSize) image.optional = decodeOptional(opt, be);
    }

    const std::vector<std::uint8_t> table =
        file.read(coff::kFileHeaderSize + optSize,
                  std::uint64_t{coff::kSectionHeaderSize} * image.header.sectionCount);
    for (std::size_t pos = 0; pos + coff::kSectionHeaderSize <= table.size();
         pos += coff::kSectionHeaderSize) {
        const coff::SectionHeader s =
            coff::decodeSectionHeader(std::span<const std::uint8_t, coff::kSectionHeaderSize>(
                                          table.data() + pos, coff::kSectionHeaderSize),
                                      be);
        image.sections.push_back(s);
        image.longNames.push_back(s.nameInStringTable
                                      ? stringTableName(file, image.header, s.stringTableOffset)
                                      : std::string());
    }
    return image;
}

}  // namespace cofinfo
