// The reader on the real TI C6000 files of the shared test data: every kept
// section against the recorded expectations, in both header byte orders.
#include <gtest/gtest.h>

#include <algorithm>
#include <span>

#include "tests/coff/coff_test_util.h"
#include "tests/coff/mini_json.h"
#include "tools/coffkit/boot_plan.h"

using cofftest::ReadOutcome;
using testing_support::TempUnitRoot;

namespace {

class RealCoffFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!cofftest::haveSharedCoffFiles())
            GTEST_SKIP() << "no shared COFF files in " << cofftest::sharedCoffDir();
        expected = minijson::parseFile(cofftest::sharedCoffDir() + "expected.json");
    }

    std::vector<std::uint8_t> fileBytes(const std::string& name) const {
        return cofftest::readHostFile(cofftest::sharedCoffDir() + name);
    }

    TempUnitRoot root;
    minijson::Value expected;
};

// The records the reader must keep: sections with a size that are not BSS.
void expectRecordsMatch(const ReadOutcome& out, const minijson::Value& file,
                        const std::vector<std::uint8_t>& bytes) {
    std::vector<const minijson::Value*> kept;
    for (const auto& s : file["sections"].array())
        if (coff::sectionHasData(static_cast<std::uint32_t>(s["size"].integer()),
                                 static_cast<std::uint32_t>(s["flags"].integer())))
            kept.push_back(&s);
    ASSERT_EQ(out.count, static_cast<int>(kept.size()));
    for (std::size_t i = 0; i < kept.size(); ++i) {
        const minijson::Value& s = *kept[i];
        const CoffSection& r = out.sections[i];
        SCOPED_TRACE("section " + std::to_string(s["index"].integer()));
        const std::string name =
            s["name_in_string_table"].boolean() ? "" : s["name"].string().substr(0, 7);
        EXPECT_EQ(std::string(r.name), name);
        EXPECT_EQ(r.address, static_cast<std::uint32_t>(s["vaddr"].integer()));
        EXPECT_EQ(r.size, static_cast<std::uint32_t>(s["size"].integer()));
        EXPECT_EQ(r.flags, static_cast<std::uint32_t>(s["flags"].integer()));
        EXPECT_EQ(r.filePos, static_cast<std::uint32_t>(s["scnptr"].integer()));
        ASSERT_EQ(r.data.size(), r.size);
        EXPECT_TRUE(std::equal(r.data.begin(), r.data.end(), bytes.begin() + r.filePos));
    }
    const coffkit::BootPlan plan =
        coffkit::planBoot(std::span(out.sections.data(), static_cast<std::size_t>(out.count)));
    const minijson::Value& rule = file["rule_A"];
    EXPECT_EQ(plan.sections, rule["loadable_sections"].integer());
    EXPECT_EQ(static_cast<std::int64_t>(plan.bytes), rule["loadable_bytes"].integer());
    EXPECT_EQ(static_cast<std::int64_t>(plan.chunks), rule["chunks_820"].integer());
}

TEST_F(RealCoffFiles, EveryFileLoadsWithItsDataSections) {
    ASSERT_EQ(expected.object().size(), 10u);
    for (const auto& [name, file] : expected.object()) {
        SCOPED_TRACE(name);
        const auto bytes = fileBytes(name);
        ASSERT_EQ(static_cast<std::int64_t>(bytes.size()), file["size"].integer());
        const ReadOutcome out = cofftest::writeAndRead(root, bytes);
        ASSERT_EQ(out.result, 0);
        expectRecordsMatch(out, file, bytes);
    }
}

// Rewrites the headers of a little-endian file in big-endian order; section
// data stay as they are.
std::vector<std::uint8_t> withBigEndianHeaders(std::vector<std::uint8_t> b, int sections,
                                               int optSize) {
    auto swap = [&b](std::size_t at, int n) { std::reverse(b.begin() + at, b.begin() + at + n); };
    for (std::size_t at : {0, 2, 16, 18, 20}) swap(at, 2);
    for (std::size_t at : {4, 8, 12}) swap(at, 4);
    if (optSize == 28) {
        swap(22, 2);
        swap(24, 2);
        for (std::size_t at = 26; at < 50; at += 4) swap(at, 4);
    }
    for (int i = 0; i < sections; ++i) {
        const std::size_t base = 22 + static_cast<std::size_t>(optSize) + 48u * i;
        if (b[base] == 0) swap(base + 4, 4);  // string table offset
        for (std::size_t at = 8; at <= 40; at += 4) swap(base + at, 4);
        swap(base + 44, 2);
        swap(base + 46, 2);
    }
    return b;
}

TEST_F(RealCoffFiles, BigEndianHeadersGiveTheSameRecords) {
    for (const char* name : {"c64x_dsk6416_init.out", "c64xp_bigendian_bios_clk.o64Pe",
                             "c674x_omapl138_dsplink_loop_release.out"}) {
        SCOPED_TRACE(name);
        const minijson::Value& file = expected[name];
        const auto bytes = fileBytes(name);
        const auto swapped = withBigEndianHeaders(bytes, static_cast<int>(file["nscns"].integer()),
                                                  static_cast<int>(file["opthdr"].integer()));
        ASSERT_EQ(swapped[20], 0x00);
        ASSERT_EQ(swapped[21], 0x99);
        const ReadOutcome out = cofftest::writeAndRead(root, swapped);
        ASSERT_EQ(out.result, 0);
        expectRecordsMatch(out, file, bytes);
    }
}

}  // namespace
