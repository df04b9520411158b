#include "tools/coffkit/dsp_version.h"

#include <cstring>

#include "dsplink/wire.h"
#include "tools/coffkit/coff_writer.h"

namespace coffkit {
namespace {

DspProgramVersion decodeVersion(std::span<const std::uint8_t> data) {
    return {wire::readU16le(data, 0), wire::readU16le(data, 2)};
}

}  // namespace

std::vector<std::uint8_t> encodeVersion(DspProgramVersion version) {
    std::vector<std::uint8_t> words(4);
    wire::writeU16le(words, 0, version.major);
    wire::writeU16le(words, 2, version.minor);
    return words;
}

std::vector<std::uint8_t> codeImage(std::uint32_t codeBytes) {
    std::vector<std::uint8_t> code(codeBytes);
    for (std::uint32_t i = 0; i < codeBytes; ++i) code[i] = codeByte(i);
    return code;
}

std::optional<DspProgramVersion> versionFromChunk(std::uint32_t address,
                                                  std::span<const std::uint8_t> data) {
    if (address != kVersionSectionAddress || data.size() < kVersionSectionBytes)
        return std::nullopt;
    return decodeVersion(data);
}

std::optional<DspProgramVersion> versionFromSections(std::span<const CoffSection> records) {
    for (const CoffSection& r : records) {
        if (std::strncmp(r.name, kVersionSectionName, sizeof r.name) == 0 &&
            r.data.size() >= kVersionSectionBytes)
            return decodeVersion(r.data);
    }
    return std::nullopt;
}

std::vector<std::uint8_t> buildVersionedImage(std::uint16_t major, std::uint16_t minor,
                                              std::uint32_t codeBytes, bool bigEndian) {
    CoffImageSpec spec;
    spec.bigEndian = bigEndian;
    spec.entry = kCodeSectionAddress;
    if (codeBytes > 0)
        spec.sections.push_back(
            dataSection(".text", kCodeSectionAddress, coff::STYP_TEXT, codeImage(codeBytes)));
    spec.sections.push_back(dataSection(kVersionSectionName, kVersionSectionAddress,
                                        coff::STYP_DATA, encodeVersion({major, minor})));
    spec.sections.push_back(bssSection(".bss", kBssSectionAddress, kBssBytes));
    return buildCoffImage(spec);
}

}  // namespace coffkit
