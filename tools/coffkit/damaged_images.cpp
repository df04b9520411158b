#include "tools/coffkit/damaged_images.h"

#include <random>
#include <string>

#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"

namespace coffkit {
namespace {

constexpr std::uint16_t kMajor = 102;
constexpr std::uint16_t kMinor = 2;
constexpr std::uint32_t kCodeBytes = 2000;

CoffImageSpec goodSpec(bool bigEndian = false) {
    CoffImageSpec spec;
    spec.bigEndian = bigEndian;
    spec.entry = kCodeSectionAddress;
    spec.sections = {
        dataSection(".text", kCodeSectionAddress, coff::STYP_TEXT, codeImage(kCodeBytes)),
        dataSection(kVersionSectionName, kVersionSectionAddress, coff::STYP_DATA,
                    encodeVersion({kMajor, kMinor}))};
    return spec;
}

std::vector<std::uint8_t> cut(std::size_t length) {
    std::vector<std::uint8_t> bytes = undamagedImage();
    bytes.resize(length);
    return bytes;
}

template <class Change>
std::vector<std::uint8_t> spoiled(Change change, bool bigEndian = false) {
    CoffImageSpec spec = goodSpec(bigEndian);
    change(spec);
    return buildCoffImage(spec);
}

std::vector<std::uint8_t> noise(std::size_t length) {
    // Fixed seed: the same bytes every run. Bytes 20-21 never read as a
    // C6000 target ID, which a lucky draw could otherwise give.
    std::mt19937 random(20);
    std::vector<std::uint8_t> bytes(length);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
    bytes[20] = 0x5A;
    return bytes;
}

}  // namespace

std::vector<std::uint8_t> undamagedImage() {
    return buildCoffImage(goodSpec());
}

std::vector<DamagedImage> damagedImages() {
    std::vector<DamagedImage> out;
    out.push_back({"empty", {}});
    out.push_back({"truncated at 1 byte", cut(1)});
    out.push_back({"truncated at 30 bytes", cut(30)});
    out.push_back({"truncated at 1000 bytes", cut(1000)});
    out.push_back({"wrong target ID", spoiled([](CoffImageSpec& s) { s.targetIdField = 0x0097; })});
    out.push_back({"huge optional header size",
                   spoiled([](CoffImageSpec& s) { s.optionalHeaderSizeField = 0xFFFF; })});
    out.push_back(
        {"0xFFFF sections", spoiled([](CoffImageSpec& s) { s.sectionCountField = 0xFFFF; })});
    out.push_back({"data pointer past the end",
                   spoiled([](CoffImageSpec& s) { s.sections[0].rawDataPosField = 0x7FFFFFF0; })});
    out.push_back(
        {"data pointer past the end, big-endian",
         spoiled([](CoffImageSpec& s) { s.sections[0].rawDataPosField = 0x00100000; }, true)});
    out.push_back({"size past the end",
                   spoiled([](CoffImageSpec& s) { s.sections[0].sizeField = 0x00100000; })});
    out.push_back({"41 sections with data", spoiled([](CoffImageSpec& s) {
                       for (std::uint32_t i = 0; s.sections.size() < 41; ++i)
                           s.sections.push_back(dataSection(".d" + std::to_string(i),
                                                            0x80100000 + 16 * i, coff::STYP_DATA,
                                                            {1, 2, 3, 4}));
                   })});
    // Three sections declared; the file ends inside the second header.
    std::vector<std::uint8_t> shortHeaders =
        spoiled([](CoffImageSpec& s) { s.sectionCountField = 3; });
    shortHeaders.resize(coff::kFileHeaderSize + coff::kOptionalHeaderSize +
                        coff::kSectionHeaderSize + 20);
    out.push_back({"section headers cut short", std::move(shortHeaders)});
    out.push_back({"random bytes", noise(4096)});
    return out;
}

}  // namespace coffkit
