// The DSP link's COFF image reader on images built to order.
#include <gtest/gtest.h>

#include <cstring>

#include "dsplink/coff_reader.h"
#include "platform/devices.h"
#include "platform/text.h"
#include "tests/coff/coff_test_util.h"
#include "tools/coffkit/coff_writer.h"

using coffkit::bssSection;
using coffkit::CoffImageSpec;
using coffkit::CoffSectionSpec;
using coffkit::dataSection;
using cofftest::kImagePath;
using cofftest::writeAndRead;
using testing_support::logContains;
using testing_support::logCount;
using testing_support::logLines;
using testing_support::TempUnitRoot;

namespace {

std::vector<std::uint8_t> bytes(std::size_t n, std::uint8_t first) {
    std::vector<std::uint8_t> b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(first + i);
    return b;
}

// A small program: code, an empty section, BSS, initialised data.
CoffImageSpec typicalImage(bool bigEndian) {
    CoffImageSpec spec;
    spec.bigEndian = bigEndian;
    spec.sections = {dataSection(".text", 0x80000000, 0x520, bytes(1000, 1)),
                     dataSection(".switch", 0x200, coff::STYP_DATA, {}),
                     bssSection(".bss", 0x1000, 4096),
                     dataSection(".cinit", 0x80002000, 0x340, bytes(33, 7))};
    return spec;
}

std::wstring imageMessage(const wchar_t* format) {
    return host::wformat(format, L"CommPolicy_USB", kImagePath.c_str());
}

class CoffReaderTest : public ::testing::Test {
  protected:
    TempUnitRoot root;
};

TEST_F(CoffReaderTest, KeepsDataSectionsInFileOrderInBothByteOrders) {
    for (bool bigEndian : {false, true}) {
        SCOPED_TRACE(bigEndian ? "big-endian headers" : "little-endian headers");
        const auto image = coffkit::buildCoffImage(typicalImage(bigEndian));
        const auto out = writeAndRead(root, image);
        ASSERT_EQ(out.result, 0);
        ASSERT_EQ(out.count, 2);

        const CoffSection& text = out.sections[0];
        EXPECT_STREQ(text.name, ".text");
        EXPECT_EQ(text.address, 0x80000000u);
        EXPECT_EQ(text.size, 1000u);
        EXPECT_EQ(text.flags, 0x520u);
        EXPECT_EQ(text.data, bytes(1000, 1));  // data as in the file, never byte-swapped
        EXPECT_EQ(std::vector<std::uint8_t>(image.begin() + text.filePos,
                                            image.begin() + text.filePos + text.size),
                  text.data);

        EXPECT_STREQ(out.sections[1].name, ".cinit");
        EXPECT_EQ(out.sections[1].address, 0x80002000u);
        EXPECT_EQ(out.sections[1].data, bytes(33, 7));
        EXPECT_TRUE(out.sections[2].data.empty());
        EXPECT_EQ(out.sections[2].size, 0u);
    }
}

TEST_F(CoffReaderTest, NamesKeepSevenCharactersAndStringTableNamesAreEmpty) {
    CoffImageSpec spec;
    spec.sections = {dataSection(".vectors", 0, coff::STYP_TEXT, bytes(4, 0)),
                     dataSection(".debug_info", 0, coff::STYP_COPY, bytes(4, 0)),
                     dataSection(".info", 0, coff::STYP_DATA, bytes(4, 0)),
                     dataSection("", 0, coff::STYP_DATA, bytes(4, 0))};
    const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
    ASSERT_EQ(out.result, 0);
    ASSERT_EQ(out.count, 4);
    EXPECT_STREQ(out.sections[0].name, ".vector");
    EXPECT_STREQ(out.sections[1].name, "");
    EXPECT_STREQ(out.sections[2].name, ".info");  // kept; only the boot loader skips it
    EXPECT_STREQ(out.sections[3].name, "");
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out.sections[i].name[7], '\0');
}

TEST_F(CoffReaderTest, OptionalHeaderIsSkippedOnlyWhenDeclared) {
    for (bool optional : {true, false}) {
        CoffImageSpec spec = typicalImage(false);
        spec.optionalHeader = optional;
        const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
        ASSERT_EQ(out.result, 0);
        ASSERT_EQ(out.count, 2);
        EXPECT_STREQ(out.sections[1].name, ".cinit");
        EXPECT_EQ(out.sections[0].filePos, optional ? 22u + 28u + 4u * 48u : 22u + 4u * 48u);
    }
    // 28 bytes present but declared as 0: the optional header is taken as
    // section headers, and the table then runs into the data.
    CoffImageSpec spec = typicalImage(false);
    spec.optionalHeaderSizeField = 0;
    const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_FALSE(out.result == 0 && out.count == 2 && std::string(out.sections[0].name) == ".text")
        << out.result << " " << out.count;
}

TEST_F(CoffReaderTest, AnyVersionIdIsReadAsCoff2AndZeroSectionsAsAnEmptyImage) {
    CoffImageSpec spec = typicalImage(false);
    spec.versionId = 0x00C1;
    EXPECT_EQ(writeAndRead(root, coffkit::buildCoffImage(spec)).result, 0);
    const auto empty = writeAndRead(root, coffkit::buildCoffImage(CoffImageSpec{}));
    EXPECT_EQ(empty.result, 0);
    EXPECT_EQ(empty.count, 0);
}

TEST_F(CoffReaderTest, NewReadClearsTheWholeTable) {
    CoffSectionTable sections;
    for (auto& s : sections) {
        s.data = {1, 2, 3};
        s.size = 3;
        std::strcpy(s.name, "old");
    }
    int count = 40;
    root.writeFile(kImagePath, [] {
        const auto b = coffkit::buildCoffImage(typicalImage(false));
        return std::string(b.begin(), b.end());
    }());
    ASSERT_EQ(readCoffImage(kImagePath, sections, count), 0);
    EXPECT_EQ(count, 2);
    for (std::size_t i = 2; i < sections.size(); ++i) {
        EXPECT_TRUE(sections[i].data.empty());
        EXPECT_EQ(sections[i].size, 0u);
        EXPECT_STREQ(sections[i].name, "");
    }
}

TEST_F(CoffReaderTest, ManyHeadersLoadWhileFortyDataSectionsFit) {
    CoffImageSpec spec;
    for (int i = 0; i < 71; ++i) {
        if (i % 2 == 0 && i / 2 < 40)  // 36 with data, 35 without
            spec.sections.push_back(dataSection(".d" + std::to_string(i), 0, 0x40, bytes(3, 0)));
        else
            spec.sections.push_back(bssSection(".b" + std::to_string(i), 0, 100));
    }
    auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.count, 36);

    spec.sections.clear();
    for (int i = 0; i < 40; ++i)
        spec.sections.push_back(dataSection(".d" + std::to_string(i), 0, 0x40, bytes(1, 0)));
    spec.sections.push_back(bssSection(".bss", 0, 8));
    out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.count, 40);
    EXPECT_STREQ(out.sections[39].name, ".d39");
}

// --- Failures -------------------------------------------------------------

TEST_F(CoffReaderTest, MissingFileIs141) {
    CoffSectionTable sections;
    int count = 0;
    EXPECT_EQ(readCoffImage(kImagePath, sections, count), kCoffOpenFailed);
    EXPECT_TRUE(
        logContains(L"SW Error #550937: Unable to open COF file \\Program Files\\Orvane "
                    L"Instruments\\480\\rf.cof!"));
}

TEST_F(CoffReaderTest, EmptyFileIs142NotAHeaderFailure) {
    const auto out = writeAndRead(root, {});
    EXPECT_EQ(out.result, kCoffEmpty);
    EXPECT_TRUE(logContains(
        L"SW Error #550938: COF file \\Program Files\\Orvane Instruments\\480\\rf.cof is empty!"));
    EXPECT_FALSE(logContains(L"failure to read header"));
}

// A device whose first open succeeds and every later one fails: the only
// way the reader's second open can fail after its first one worked.
class OpensOnce : public host::StreamDriver {
  public:
    std::shared_ptr<host::DeviceInstance> open(DWORD, DWORD, DWORD& error) override {
        if (opened_++ == 0) return std::make_shared<Instance>();
        error = ERROR_ACCESS_DENIED;
        return nullptr;
    }

  private:
    struct Instance : host::DeviceInstance {
        bool ioControl(DWORD, void*, DWORD, void*, DWORD, DWORD*, DWORD& error) override {
            error = ERROR_NOT_SUPPORTED;
            return false;
        }
    };
    int opened_ = 0;
};

TEST_F(CoffReaderTest, SecondOpenFailingIs143) {
    host::registerStreamDriver(L"COF9:", std::make_shared<OpensOnce>());
    CoffSectionTable sections;
    int count = 0;
    EXPECT_EQ(readCoffImage(L"COF9:", sections, count), kCoffStreamFailed);
    host::registerStreamDriver(L"COF9:", nullptr);
    EXPECT_TRUE(logContains(L"CommPolicy_USB: input file COF9: wont open!"));
}

TEST_F(CoffReaderTest, ShortHeaderIs144) {
    const auto image = coffkit::buildCoffImage(typicalImage(false));
    const auto out = writeAndRead(root, {image.begin(), image.begin() + 21});
    EXPECT_EQ(out.result, kCoffHeaderUnreadable);
    EXPECT_TRUE(logContains(imageMessage(L"%s: failure to read header %s!")));
}

TEST_F(CoffReaderTest, ForeignTargetIs145WithThePathAsText) {
    for (std::uint16_t target : {0x0097, 0x9999, 0x0000}) {
        CoffImageSpec spec = typicalImage(false);
        spec.targetIdField = target;
        EXPECT_EQ(writeAndRead(root, coffkit::buildCoffImage(spec)).result, kCoffNotC6000);
    }
    EXPECT_TRUE(logContains(
        L"CommPolicy_USB: \\Program Files\\Orvane Instruments\\480\\rf.cof Is Not A C67xxx Coff "
        L"File!"));
}

TEST_F(CoffReaderTest, DataPointerPastTheEndSkipsEmptySectionsAndFailsTheReadOfOthers) {
    const auto image = coffkit::buildCoffImage(typicalImage(false));
    const std::uint32_t pastEnd = static_cast<std::uint32_t>(image.size()) + 1;
    struct Case {
        int victim;
        std::uint32_t pointer;
        int result;
        int count;
    };
    // The seek itself never fails: the size-0 and the BSS section are skipped,
    // the data section's read fails with its line.
    for (const Case c : {Case{1, pastEnd, 0, 2}, Case{2, pastEnd, 0, 2}, Case{2, 0xFFFFFFF0u, 0, 2},
                         Case{1, pastEnd - 1, 0, 2}, Case{3, pastEnd, kCoffSectionUnreadable, 1},
                         Case{3, 0xFFFFFFF0u, kCoffSectionUnreadable, 1}}) {
        SCOPED_TRACE(testing::Message() << c.victim << " at " << c.pointer);
        CoffImageSpec spec = typicalImage(false);
        spec.sections[static_cast<std::size_t>(c.victim)].rawDataPosField = c.pointer;
        const int failuresBefore = logCount(L"CommPolicy_USB: failure to read section .cinit!");
        const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
        EXPECT_EQ(out.result, c.result);
        EXPECT_EQ(out.count, c.count);
        EXPECT_EQ(out.sections[0].data.size(), 1000u);  // .text, read before, stays counted
        EXPECT_EQ(logCount(L"CommPolicy_USB: failure to read section .cinit!") - failuresBefore,
                  c.result == 0 ? 0 : 1);
    }
}

TEST_F(CoffReaderTest, AllocationFailureIs147WithTheFullName) {
    CoffImageSpec spec = typicalImage(false);
    spec.sections[3].name = ".cinit_x";
    spec.sections[3].data = bytes(300000, 0);
    root.writeFile(kImagePath, [&] {
        const auto b = coffkit::buildCoffImage(spec);
        return std::string(b.begin(), b.end());
    }());
    CoffSectionTable sections;
    int count = 0;
    cofftest::allocations::failFrom(300000);
    const int result = readCoffImage(kImagePath, sections, count);
    cofftest::allocations::failFrom(0);
    EXPECT_EQ(result, kCoffAllocFailed);
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(sections[1].data.empty());
    EXPECT_TRUE(logContains(L"CommPolicy_USB: failure to alloc section .cinit_x!"));
}

TEST_F(CoffReaderTest, SizeRunningPastTheEndIs148WithoutAHugeAllocation) {
    const auto image = coffkit::buildCoffImage(typicalImage(true));
    for (std::uint32_t size : {0xFFFFFFFFu, 0x7FFFFFFFu, 0x10000000u, 34u}) {
        SCOPED_TRACE(size);
        CoffImageSpec spec = typicalImage(true);
        spec.sections[3].name = ".cinit78";
        spec.sections[3].sizeField = size;  // 34: one byte more than the file holds
        cofftest::allocations::reset();
        const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
        EXPECT_EQ(out.result, kCoffSectionUnreadable);
        EXPECT_LT(cofftest::allocations::largest(), image.size() + 65536);
        EXPECT_EQ(out.count, 1);
        EXPECT_TRUE(out.sections[1].data.empty());
    }
    EXPECT_TRUE(logContains(L"CommPolicy_USB: failure to read section .cinit78!"));
}

TEST_F(CoffReaderTest, MoreThanFortyDataSectionsIs149) {
    CoffImageSpec spec;
    for (int i = 0; i < 41; ++i)
        spec.sections.push_back(dataSection(".d" + std::to_string(i), 0, 0x40, bytes(2, 0)));
    const auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_EQ(out.result, kCoffTooManySections);
    EXPECT_EQ(out.count, 0);
    EXPECT_TRUE(
        logContains(L"CommPolicy_USB::readCoffFile \\Program Files\\Orvane "
                    L"Instruments\\480\\rf.cof has 41 sections with data"));
}

TEST_F(CoffReaderTest, HeadersEndingEarlyAre150AndNoneIsUsed) {
    CoffImageSpec spec;
    spec.optionalHeader = false;
    spec.sections = {dataSection(".text", 0, 0x20, bytes(8, 0))};
    // Two headers declared; the file ends inside the second.
    spec.sectionCountField = 2;
    auto out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_EQ(out.result, kCoffHeadersTruncated);
    EXPECT_EQ(out.count, 0);
    EXPECT_TRUE(logContains(L"end after 1 of the 2 declared!"));

    // A count of 65535 in a small file: no allocation for 65535 headers.
    spec.sectionCountField = 0xFFFF;
    cofftest::allocations::reset();
    out = writeAndRead(root, coffkit::buildCoffImage(spec));
    EXPECT_EQ(out.result, kCoffHeadersTruncated);
    EXPECT_LT(cofftest::allocations::largest(), 65536u);
}

}  // namespace
