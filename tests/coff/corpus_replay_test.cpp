// Replays the fuzzing seeds and a fixed set of mutations of them through the
// reader: whatever the bytes, the reader answers a result of its own, keeps
// the table consistent and never allocates more than the file could hold.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "boards/error_log.h"
#include "dsplink/wire.h"
#include "platform/handles.h"
#include "tests/coff/coff_test_util.h"
#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"

using coffkit::bssSection;
using coffkit::dataSection;
using testing_support::TempUnitRoot;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kMaxSeedBytes = 128 * 1024;  // larger seeds are cut, to keep this quick

std::vector<Bytes> generatedSeeds() {
    std::vector<Bytes> seeds;
    for (bool bigEndian : {false, true}) {
        seeds.push_back(coffkit::buildVersionedImage(1, 2, 3000, bigEndian));
        coffkit::CoffImageSpec spec;
        spec.bigEndian = bigEndian;
        spec.optionalHeader = !bigEndian;
        spec.sections = {dataSection(".vectors", 0, 0xA20, Bytes(512, 0x11)),
                         dataSection(".debug_abbrev", 0, 0x10, Bytes(90, 0x22)),
                         bssSection(".bss", 0x1000, 300), dataSection(".switch", 0, 0x10, {}),
                         dataSection(".info", 0, 0x40, Bytes(8, 0x33))};
        seeds.push_back(coffkit::buildCoffImage(spec));
    }
    return seeds;
}

std::vector<Bytes> sharedSeeds() {
    std::vector<Bytes> seeds;
    if (!cofftest::haveSharedCoffFiles()) return seeds;
    for (const auto& entry : std::filesystem::directory_iterator(cofftest::sharedCoffDir())) {
        const std::string ext = entry.path().extension().string();
        if (ext == ".json" || ext == ".md") continue;
        Bytes bytes = cofftest::readHostFile(entry.path().string());
        if (bytes.size() > kMaxSeedBytes) bytes.resize(kMaxSeedBytes);
        seeds.push_back(std::move(bytes));
    }
    return seeds;
}

// The fuzzing seeds kept in the tree, and every reproducer kept with them.
std::vector<Bytes> treeSeeds() {
    std::vector<Bytes> seeds;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(TOVEL_FUZZ_CORPUS) + "/coff"))
        seeds.push_back(cofftest::readHostFile(entry.path().string()));
    return seeds;
}

// Writes the low `size` bytes of `v`, little-endian, as far as the file goes.
void put(Bytes& b, std::size_t at, std::uint32_t v, std::size_t size) {
    std::array<std::uint8_t, 4> le{};
    wire::writeU32le(le, 0, v);
    for (std::size_t i = 0; i < size && at + i < b.size(); ++i) b[at + i] = le[i];
}

// One deterministic mutation of a seed.
Bytes mutate(const Bytes& seed, std::mt19937& random) {
    Bytes b = seed;
    if (b.size() < 22) return b;
    auto pick = [&random](std::size_t n) {
        return n == 0 ? std::size_t{0}
                      : std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
    };
    const std::size_t optSize = wire::readU16le(b, 16);
    const std::size_t sections = wire::readU16le(b, 2);
    const std::size_t headerEnd = std::min(b.size(), 22 + optSize + 48 * sections);
    const std::size_t section = 22 + optSize + 48 * pick(std::max<std::size_t>(sections, 1));
    const std::uint32_t hugeValues[] = {0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u,
                                        static_cast<std::uint32_t>(b.size() + 1),
                                        static_cast<std::uint32_t>(b.size())};
    switch (pick(7)) {
        case 0:  // bit flips in the headers
            for (std::size_t n = 1 + pick(4); n > 0; --n) b[pick(headerEnd)] ^= 1u << pick(8);
            break;
        case 1:  // truncation
            b.resize(pick(b.size()));
            break;
        case 2:  // size field
            put(b, section + 16, hugeValues[pick(5)], 4);
            break;
        case 3:  // raw-data pointer
            put(b, section + 20,
                pick(2) ? hugeValues[pick(5)] : static_cast<std::uint32_t>(random()), 4);
            break;
        case 4:  // section count
            put(b, 2, static_cast<std::uint16_t>(pick(2) ? 0xFFFF : sections + 1 + pick(50)), 2);
            break;
        case 5:  // optional header size
            put(b, 16, static_cast<std::uint16_t>(random()), 2);
            break;
        default:  // BSS and type bits of a section
            put(b, section + 40, static_cast<std::uint32_t>(random()) & 0xFFF, 4);
            break;
    }
    return b;
}

void expectConsistent(const cofftest::ReadOutcome& out, std::size_t fileSize) {
    EXPECT_TRUE(out.result == 0 ||
                (out.result >= kCoffOpenFailed && out.result <= kCoffHeadersTruncated))
        << out.result;
    ASSERT_GE(out.count, 0);
    ASSERT_LE(out.count, kMaxCoffSections);
    for (int i = 0; i < kMaxCoffSections; ++i) {
        const CoffSection& r = out.sections[static_cast<std::size_t>(i)];
        if (i < out.count) {
            EXPECT_GT(r.size, 0u);
            EXPECT_EQ(r.data.size(), r.size);
            EXPECT_LE(std::uint64_t{r.filePos} + r.size, fileSize);
            EXPECT_EQ(r.flags & STYP_BSS, 0u);
            EXPECT_EQ(r.name[7], '\0');
        } else {
            EXPECT_TRUE(r.data.empty());
        }
    }
}

// Reading the same bytes from memory, the fuzzer's way in, gives the same table.
void expectSameFromMemory(const cofftest::ReadOutcome& fromFile, const Bytes& image) {
    cofftest::ReadOutcome mem;
    mem.result = readCoffImageBytes(image, cofftest::kImagePath, mem.sections, mem.count);
    EXPECT_EQ(mem.result, fromFile.result);
    ASSERT_EQ(mem.count, fromFile.count);
    for (std::size_t i = 0; i < static_cast<std::size_t>(mem.count); ++i)
        EXPECT_TRUE(mem.sections[i].data == fromFile.sections[i].data &&
                    mem.sections[i].address == fromFile.sections[i].address);
}

TEST(CoffCorpusReplay, SeedsAndMutationsNeverBreakTheReader) {
    TempUnitRoot root;
    std::vector<Bytes> seeds = generatedSeeds();
    const std::size_t generated = seeds.size();
    for (Bytes& s : treeSeeds()) seeds.push_back(std::move(s));
    for (Bytes& s : sharedSeeds()) seeds.push_back(std::move(s));

    const std::size_t handlesBefore = host::openHandleCountForTest();
    std::mt19937 random(20240601);
    int runs = 0;
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        SCOPED_TRACE("seed " + std::to_string(i));
        const auto plain = cofftest::writeAndRead(root, seeds[i]);
        if (i < generated) {
            EXPECT_EQ(plain.result, 0);
        }
        expectConsistent(plain, seeds[i].size());
        expectSameFromMemory(plain, seeds[i]);
        for (int m = 0; m < 40; ++m, ++runs) {
            const Bytes mutated = mutate(seeds[i], random);
            cofftest::allocations::reset();
            const auto out = cofftest::writeAndRead(root, mutated);
            SCOPED_TRACE("mutation " + std::to_string(m));
            expectConsistent(out, mutated.size());
            expectSameFromMemory(out, mutated);
            EXPECT_LE(cofftest::allocations::largest(), mutated.size() + 65536);
        }
    }
    EXPECT_GE(runs, 160);
    closeLogFileForShutdown();  // the event log keeps its own file open
    EXPECT_EQ(host::openHandleCountForTest(), handlesBefore);
}

}  // namespace
