// The reader on the real TI C6000 files of the shared test data: every kept
// section against the recorded expectations, in both header byte orders. The
// boot plan of each file is checked through cofinfo (cofinfo_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "dsplink/coff_reader.h"
#include "tests/coff/coff_test_util.h"

using cofftest::ReadOutcome;
using testing_support::TempUnitRoot;

namespace {

class RealCoffFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!cofftest::haveSharedCoffFiles())
            GTEST_SKIP() << "no shared COFF files in " << cofftest::sharedCoffDir();
        expected =
            nlohmann::json::parse(std::ifstream(cofftest::sharedCoffDir() + "expected.json"));
    }

    std::vector<std::uint8_t> fileBytes(const std::string& name) const {
        return cofftest::readHostFile(cofftest::sharedCoffDir() + name);
    }

    TempUnitRoot root;
    nlohmann::json expected;
};

// The records the reader must keep: sections with a size that are not BSS.
void expectRecordsMatch(const ReadOutcome& out, const nlohmann::json& file,
                        const std::vector<std::uint8_t>& bytes) {
    std::vector<const nlohmann::json*> kept;
    for (const auto& s : file.at("sections"))
        if (coff::sectionHasData(s.at("size").get<std::uint32_t>(),
                                 s.at("flags").get<std::uint32_t>()))
            kept.push_back(&s);
    ASSERT_EQ(out.count, static_cast<int>(kept.size()));
    for (std::size_t i = 0; i < kept.size(); ++i) {
        const nlohmann::json& s = *kept[i];
        const CoffSection& r = out.sections[i];
        SCOPED_TRACE("section " + std::to_string(s.at("index").get<std::int64_t>()));
        const std::string name = s.at("name_in_string_table").get<bool>()
                                     ? ""
                                     : s.at("name").get<std::string>().substr(0, 7);
        EXPECT_EQ(std::string(r.name), name);
        EXPECT_EQ(r.address, s.at("vaddr").get<std::uint32_t>());
        EXPECT_EQ(r.size, s.at("size").get<std::uint32_t>());
        EXPECT_EQ(r.flags, s.at("flags").get<std::uint32_t>());
        EXPECT_EQ(r.filePos, s.at("scnptr").get<std::uint32_t>());
        ASSERT_EQ(r.data.size(), r.size);
        EXPECT_TRUE(std::equal(r.data.begin(), r.data.end(), bytes.begin() + r.filePos));
    }
}

TEST_F(RealCoffFiles, EveryFileLoadsWithItsDataSections) {
    ASSERT_EQ(expected.size(), 10u);
    for (const auto& [name, file] : expected.items()) {
        SCOPED_TRACE(name);
        const auto bytes = fileBytes(name);
        ASSERT_EQ(static_cast<std::int64_t>(bytes.size()), file.at("size").get<std::int64_t>());
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
        const nlohmann::json& file = expected.at(name);
        const auto bytes = fileBytes(name);
        const auto swapped =
            withBigEndianHeaders(bytes, file.at("nscns").get<int>(), file.at("opthdr").get<int>());
        ASSERT_EQ(swapped[20], 0x00);
        ASSERT_EQ(swapped[21], 0x99);
        const ReadOutcome out = cofftest::writeAndRead(root, swapped);
        ASSERT_EQ(out.result, 0);
        expectRecordsMatch(out, file, bytes);
    }
}

}  // namespace
