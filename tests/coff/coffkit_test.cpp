// The image writer, the version convention, the boot loader's view of an
// image, and mkcof's section descriptions.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/coff/coff_test_util.h"
#include "tools/coffkit/boot_plan.h"
#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"
#include "tools/coffkit/section_arg.h"

using namespace coffkit;
using testing_support::TempUnitRoot;

namespace {

coff::FileHeader headerOf(const std::vector<std::uint8_t>& image) {
    return coff::decodeFileHeader(
        std::span<const std::uint8_t, coff::kFileHeaderSize>(image.data(), coff::kFileHeaderSize));
}

coff::SectionHeader sectionOf(const std::vector<std::uint8_t>& image, std::size_t index) {
    const coff::FileHeader h = headerOf(image);
    const std::size_t pos =
        coff::kFileHeaderSize + h.optionalHeaderSize + index * coff::kSectionHeaderSize;
    return coff::decodeSectionHeader(std::span<const std::uint8_t, coff::kSectionHeaderSize>(
                                         image.data() + pos, coff::kSectionHeaderSize),
                                     h.bigEndian);
}

TEST(CoffWriter, WritesHeadersInTheChosenByteOrder) {
    CoffImageSpec spec;
    spec.sections = {dataSection(".text", 0x1234, coff::STYP_TEXT, {1, 2, 3})};
    for (bool bigEndian : {false, true}) {
        spec.bigEndian = bigEndian;
        const auto image = buildCoffImage(spec);
        // Target ID bytes: 99 00 in a little-endian file, 00 99 in a big-endian one.
        EXPECT_EQ(image[20], bigEndian ? 0x00 : 0x99);
        EXPECT_EQ(image[21], bigEndian ? 0x99 : 0x00);
        const coff::FileHeader h = headerOf(image);
        EXPECT_EQ(h.bigEndian, bigEndian);
        EXPECT_EQ(h.versionId, coff::kVersionIdCoff2);
        EXPECT_EQ(h.sectionCount, 1);
        EXPECT_EQ(h.optionalHeaderSize, 28);
        EXPECT_EQ(h.flags & (coff::F_BIG | coff::F_LITTLE),
                  bigEndian ? coff::F_BIG : coff::F_LITTLE);
        const coff::SectionHeader s = sectionOf(image, 0);
        EXPECT_STREQ(s.name, ".text");
        EXPECT_EQ(s.virtualAddress, 0x1234u);
        EXPECT_EQ(s.size, 3u);
        ASSERT_EQ(s.rawDataPos, 22u + 28u + 48u);
        EXPECT_EQ(image[s.rawDataPos + 2], 3);
        EXPECT_EQ(image.size(), s.rawDataPos + 3u);
    }
}

TEST(CoffWriter, LongNamesGoToTheStringTable) {
    CoffImageSpec spec;
    spec.optionalHeader = false;
    spec.sections = {dataSection(".debug_info", 0, coff::STYP_COPY, {9}),
                     dataSection("exactly8", 0, coff::STYP_DATA, {8})};
    const auto image = buildCoffImage(spec);
    const coff::FileHeader h = headerOf(image);
    EXPECT_EQ(h.optionalHeaderSize, 0);
    const coff::SectionHeader longName = sectionOf(image, 0);
    EXPECT_TRUE(longName.nameInStringTable);
    EXPECT_STREQ(longName.name, "");
    const std::size_t at = h.symbolTablePos + 18u * h.symbolCount + longName.stringTableOffset;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&image[at])), ".debug_info");
    EXPECT_STREQ(sectionOf(image, 1).name, "exactly8");
}

TEST(DspVersion, VersionedImageReadsBackThroughTheLinkReader) {
    TempUnitRoot root;
    for (bool bigEndian : {false, true}) {
        const auto out = cofftest::writeAndRead(root, buildVersionedImage(3, 260, 2000, bigEndian));
        ASSERT_EQ(out.result, 0);
        ASSERT_EQ(out.count, 2);  // .text and .ver; .bss has no data
        const std::span<const CoffSection> records(out.sections.data(), 2);
        EXPECT_EQ(versionFromSections(records), (DspProgramVersion{3, 260}));
        EXPECT_EQ(out.sections[0].address, kCodeSectionAddress);
        EXPECT_EQ(out.sections[0].data, codeImage(2000));
        EXPECT_EQ(out.sections[1].address, kVersionSectionAddress);
        EXPECT_EQ(out.sections[1].data, (std::vector<std::uint8_t>{3, 0, 4, 1}));
    }
    const auto noCode = cofftest::writeAndRead(root, buildVersionedImage(1, 0, 0));
    ASSERT_EQ(noCode.count, 1);
    EXPECT_STREQ(noCode.sections[0].name, ".ver");
}

TEST(DspVersion, OnlyTheVersionAddressCarriesAVersion) {
    const std::vector<std::uint8_t> data{0x02, 0x00, 0x07, 0x00};
    EXPECT_EQ(versionFromChunk(kVersionSectionAddress, data), (DspProgramVersion{2, 7}));
    EXPECT_FALSE(versionFromChunk(kVersionSectionAddress + 4, data));
    EXPECT_FALSE(versionFromChunk(kVersionSectionAddress, std::span(data).first(3)));
    EXPECT_EQ(encodeVersion({0x1234, 0xABCD}), (std::vector<std::uint8_t>{0x34, 0x12, 0xCD, 0xAB}));
}

TEST(BootPlan, SkipRulesOfTheBootLoader) {
    auto record = [](const char* name, std::uint32_t filePos, std::uint32_t size,
                     std::uint32_t flags) {
        CoffSection r;
        std::snprintf(r.name, sizeof r.name, "%s", name);
        r.filePos = filePos;
        r.size = size;
        r.flags = flags;
        r.data.resize(size);
        return r;
    };
    const std::vector<CoffSection> records{
        record(".text", 100, 1640, 0x520), record(".info", 100, 10, 0x40),
        record(".heap", 0, 10, 0x40),      record(".x", 100, 10, STYP_NOLOAD | 0x40),
        record(".y", 100, 10, STYP_DSECT), record(".debug", 100, 10, coff::STYP_COPY),
        record(".infox", 100, 5, 0x40)};
    const BootPlan plan = planBoot(records);
    EXPECT_EQ(plan.sections, 3);  // .text, the copy section, .infox
    EXPECT_EQ(plan.bytes, 1655u);
    EXPECT_EQ(plan.chunks, 4u);
}

TEST(SectionArg, ParsesEveryContentKind) {
    CoffSectionSpec s = parseSectionArg(".text:0x80000000=pattern:0xAA:3");
    EXPECT_EQ(s.name, ".text");
    EXPECT_EQ(s.address, 0x80000000u);
    EXPECT_EQ(s.flags, coff::STYP_TEXT);
    EXPECT_EQ(s.data, (std::vector<std::uint8_t>{0xAA, 0xAA, 0xAA}));

    s = parseSectionArg(".cinit:4096:data+copy=hex:00ff10");
    EXPECT_EQ(s.address, 4096u);
    EXPECT_EQ(s.flags, coff::STYP_DATA | coff::STYP_COPY);
    EXPECT_EQ(s.data, (std::vector<std::uint8_t>{0x00, 0xFF, 0x10}));

    s = parseSectionArg(".bss:0x100=bss:512");
    EXPECT_EQ(s.flags, STYP_BSS);
    EXPECT_EQ(s.uninitializedSize, 512u);
    EXPECT_TRUE(s.data.empty());

    s = parseSectionArg(".far:scratch1:0x10:0x810=pattern:1:1");
    EXPECT_EQ(s.name, ".far:scratch1");
    EXPECT_EQ(s.address, 0x10u);
    EXPECT_EQ(s.flags, 0x810u);

    s = parseSectionArg(".far:scratch1:0x10=pattern:1:1");
    EXPECT_EQ(s.name, ".far:scratch1");
    EXPECT_EQ(s.flags, coff::STYP_TEXT);
}

TEST(SectionArg, RefusesMalformedDescriptions) {
    for (const char* bad : {".text", ".text:0x10", ":0x10=bss:1", ".t:zz=bss:1",
                            ".t:1=pattern:256:1", ".t:1=hex:abc", ".t:1=hex:zz", ".t:1=what:1",
                            ".t:1:nonsense=bss:1", ".t:1=@/no/such/file", ".t:0x100000000=bss:1"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseSectionArg(bad), std::invalid_argument);
    }
    EXPECT_EQ(parseVersionArg("2.17"), (DspProgramVersion{2, 17}));
    EXPECT_THROW(parseVersionArg("2"), std::invalid_argument);
    EXPECT_THROW(parseVersionArg("2.70000"), std::invalid_argument);
}

}  // namespace
