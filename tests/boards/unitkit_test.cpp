// The default images a fresh unit ships with. That each boots its kind with
// the version the kind accepts: registry_test.cpp's DefaultBoards test.
#include <gtest/gtest.h>

#include "tests/support/test_support.h"
#include "tools/unitkit/default_images.h"

namespace {

TEST(DefaultImages, UnwritableFolderIsReported) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\blocker", "a file where the folder should be");
    EXPECT_THROW(unitkit::writeDefaultImages(root.hostPath(L"\\blocker")), std::runtime_error);
}

}  // namespace
