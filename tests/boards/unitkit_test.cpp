// The default images a fresh unit ships with.
#include <gtest/gtest.h>

#include "boards/error_log.h"
#include "dsplink/coff_reader.h"
#include "platform/text.h"
#include "tests/support/test_support.h"
#include "tools/coffkit/dsp_version.h"
#include "tools/unitkit/default_images.h"

namespace {

TEST(DefaultImages, OnePerKindFileWithTheVersionItsKindAccepts) {
    testing_support::TempUnitRoot root;
    unitkit::writeDefaultImages(root.hostPath(installFolder));

    const std::pair<const wchar_t*, coffkit::DspProgramVersion> expected[] = {
        {L"t1.cof", {102, 2}}, {L"rf.cof", {53, 3}},   {L"ip.cof", {99, 6}},
        {L"ipg.cof", {99, 6}}, {L"pots.cof", {58, 4}},
    };
    ASSERT_EQ(unitkit::defaultImages().size(), std::size(expected));
    for (const auto& [file, version] : expected) {
        CoffSectionTable sections{};
        int count = 0;
        ASSERT_EQ(readCoffImage(installFolder + L"\\" + file, sections, count), 0)
            << host::narrow(file);
        const auto read = coffkit::versionFromSections(std::span(sections).first(
            static_cast<std::size_t>(std::clamp(count, 0, kMaxCoffSections))));
        ASSERT_TRUE(read) << host::narrow(file);
        EXPECT_EQ(*read, version) << host::narrow(file);
    }
}

TEST(DefaultImages, UnwritableFolderIsReported) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\blocker", "a file where the folder should be");
    EXPECT_THROW(unitkit::writeDefaultImages(root.hostPath(L"\\blocker")), std::runtime_error);
}

}  // namespace
