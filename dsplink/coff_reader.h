#pragma once
// Reader for DSP program images: TI C6000 COFF files (COFF1/COFF2 layout) in
// either header byte order. It keeps, in file order, every section that
// carries initialised data, for the boot loader to send.
//
// The on-disk layout decoders are public so that tools can show a file's
// headers exactly the way the reader sees them.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "dsplink/coff_section.h"

// Result codes of readCoffImage (0 is success).
inline constexpr int kCoffOpenFailed = 141;         // file cannot be opened
inline constexpr int kCoffEmpty = 142;              // file is 0 bytes long
inline constexpr int kCoffStreamFailed = 143;       // second open, for reading, failed
inline constexpr int kCoffHeaderUnreadable = 144;   // fewer than 22 header bytes
inline constexpr int kCoffNotC6000 = 145;           // target ID neither 0x0099 nor 0x9900
inline constexpr int kCoffSeekFailed = 146;         // a raw-data pointer lies past the end
inline constexpr int kCoffAllocFailed = 147;        // no memory for a section
inline constexpr int kCoffSectionUnreadable = 148;  // section data runs past the end
inline constexpr int kCoffTooManySections = 149;    // more data sections than the table holds
inline constexpr int kCoffHeadersTruncated = 150;   // section headers end before the declared count

// Reads the image at `path` (an original path such as
// L"\\Program Files\\Orvane Instruments\\480\\rf.cof") into `sections`.
// Clears the table and sets `sectionCount` to 0 first; after a failure the
// records filled so far stay counted. Every failure but 146 writes one line
// to the event log.
int readCoffImage(const std::wstring& path, CoffSectionTable& sections, int& sectionCount);

// Reads an image that is already in memory with the same parser, steps and
// log lines as readCoffImage after it has opened the file (so never 141-143);
// `path` names the image in those lines. The fuzzer's way in: no file per input.
int readCoffImageBytes(std::span<const std::uint8_t> image, const std::wstring& path,
                       CoffSectionTable& sections, int& sectionCount);

namespace coff {

inline constexpr std::size_t kFileHeaderSize = 22;
inline constexpr std::size_t kSectionHeaderSize = 48;
inline constexpr std::size_t kOptionalHeaderSize = 28;  // the size TI's linker writes
inline constexpr std::uint16_t kTargetIdC6000 = 0x0099;
inline constexpr std::uint16_t kVersionIdCoff2 = 0x00C2;
inline constexpr std::uint16_t kOptionalHeaderMagic = 0x0108;

// File header flags worth naming.
inline constexpr std::uint16_t F_RELFLG = 0x0001;
inline constexpr std::uint16_t F_EXEC = 0x0002;
inline constexpr std::uint16_t F_LNNO = 0x0004;
inline constexpr std::uint16_t F_LSYMS = 0x0008;
inline constexpr std::uint16_t F_LITTLE = 0x0100;  // target data little-endian
inline constexpr std::uint16_t F_BIG = 0x0200;     // target data big-endian

// Section type bits beyond those in coff_section.h. Bits 8-11 hold the
// alignment, so test types with masks, never by equality.
inline constexpr std::uint32_t STYP_COPY = 0x10;
inline constexpr std::uint32_t STYP_TEXT = 0x20;
inline constexpr std::uint32_t STYP_DATA = 0x40;

struct FileHeader {
    std::uint16_t versionId = 0;
    std::uint16_t sectionCount = 0;
    std::uint32_t timeStamp = 0;
    std::uint32_t symbolTablePos = 0;
    std::uint32_t symbolCount = 0;
    std::uint16_t optionalHeaderSize = 0;
    std::uint16_t flags = 0;
    std::uint16_t targetId = 0;  // as read in little-endian order: 0x0099 or 0x9900
    bool bigEndian = false;      // header fields stored big-endian
};

struct SectionHeader {
    char name[9] = {};  // the 8-byte field, NUL-terminated; empty when kept in the string table
    std::uint32_t stringTableOffset = 0;  // for a name kept in the string table
    bool nameInStringTable = false;       // first four bytes zero
    std::uint32_t physicalAddress = 0;
    std::uint32_t virtualAddress = 0;
    std::uint32_t size = 0;
    std::uint32_t rawDataPos = 0;
    std::uint32_t relocationPos = 0;
    std::uint32_t lineNumberPos = 0;
    std::uint32_t relocationCount = 0;
    std::uint32_t lineNumberCount = 0;
    std::uint32_t flags = 0;
    std::uint16_t reserved = 0;
    std::uint16_t page = 0;
};

// Whether the target ID marks a C6000 file, and in which byte order.
bool isC6000TargetId(std::uint16_t targetIdReadLittleEndian);

// Decodes the first kFileHeaderSize bytes. The result's targetId tells
// whether it is a C6000 file at all (see isC6000TargetId).
FileHeader decodeFileHeader(std::span<const std::uint8_t, kFileHeaderSize> bytes);
SectionHeader decodeSectionHeader(std::span<const std::uint8_t, kSectionHeaderSize> bytes,
                                  bool bigEndian);

// Whether the reader keeps a record for a section: it has a size and is not
// BSS. The boot loader then applies its own skip rules to the records.
constexpr bool sectionHasData(std::uint32_t size, std::uint32_t flags) {
    return size != 0 && (flags & STYP_BSS) == 0;
}

}  // namespace coff
