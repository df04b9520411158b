#pragma once
// How a DSP program image states its version, and images built to order.
//
// Convention: the image carries a loaded section named ".ver" at DSP address
// kVersionSectionAddress holding 4 bytes: the major and then the minor
// version, each a little-endian 16-bit word (in images of either header byte
// order). The boot loader sends it like any other section, so a simulated DSP
// learns which program it was given from the boot chunk for that address.
//
// Versioned images (buildVersionedImage) hold, in this order:
//   ".text" codeBytes bytes of codeByte(i) at kCodeSectionAddress (left out when 0)
//   ".ver"  the version, at kVersionSectionAddress
//   ".bss"  kBssBytes of uninitialised data (no file data, never sent)
// with the 28-byte optional header and entry point kCodeSectionAddress.
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dsplink/coff_section.h"
#include "sim/program_version.h"

namespace coffkit {

struct DspProgramVersion {
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    auto operator<=>(const DspProgramVersion&) const = default;
};

inline constexpr char kVersionSectionName[] = ".ver";
// Where the section loads and its size are the simulated boards' convention.
inline constexpr std::uint32_t kVersionSectionAddress = sim::kVersionAddress;
inline constexpr std::uint32_t kVersionSectionBytes = sim::kVersionSize;
inline constexpr std::uint32_t kCodeSectionAddress = 0x80000000;  // external memory (CE0)
inline constexpr std::uint32_t kBssSectionAddress = 0x00030000;
inline constexpr std::uint32_t kBssBytes = 1024;

// The i-th byte of a versioned image's code: a fixed pattern, so a receiver
// can check what arrived.
constexpr std::uint8_t codeByte(std::uint32_t i) {
    return static_cast<std::uint8_t>(i * 31u + 7u);
}

std::vector<std::uint8_t> encodeVersion(DspProgramVersion version);
// codeBytes bytes of codeByte(i).
std::vector<std::uint8_t> codeImage(std::uint32_t codeBytes);

// The version carried by a boot chunk, if the chunk is the ".ver" section.
std::optional<DspProgramVersion> versionFromChunk(std::uint32_t address,
                                                  std::span<const std::uint8_t> data);
// The version in the records of a read image, if it has a ".ver" section.
std::optional<DspProgramVersion> versionFromSections(std::span<const CoffSection> records);

std::vector<std::uint8_t> buildVersionedImage(std::uint16_t major, std::uint16_t minor,
                                              std::uint32_t codeBytes, bool bigEndian = false);

}  // namespace coffkit
