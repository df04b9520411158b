// The enumeration's second chance: a board whose image does not boot comes
// up with its kind's previous image, the failed one is kept aside, and a
// board that fails with both images leaves the install folder as it was.
#include "boards/error_log.h"
#include "boards/kind_image.h"
#include "boards/t1_ctlr.h"
#include "platform/files.h"
#include "tests/boards/board_fixture.h"

namespace boardtest {
namespace {

class LastGoodImageTest : public BoardTest {
  protected:
    LastGoodImageTest() {
        installImage(L"t1.cof", 102, 7);
        good = root.readFile(files.image());
    }
    void put(const std::wstring& path, const std::string& bytes) { root.writeFile(path, bytes); }
    std::string read(const std::wstring& path) { return root.readFile(path); }
    static bool exists(const std::wstring& path) { return KindImage::exists(path); }

    const KindImage files{L"t1.cof"};
    std::string good;
    const std::string damaged = "not an image at all, just some text";
};

TEST_F(LastGoodImageTest, DamagedImageGivesWayToThePreviousOne) {
    put(files.previous(), good);
    put(files.image(), damaged);
    auto board = attach(sim::BoardKind::T1);
    UsbCtlr::EnumDevices(false, true, false);

    ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(board->programVersion(), (sim::ProgramVersion{102, 7}));
    EXPECT_EQ(read(files.image()), good);
    EXPECT_EQ(read(files.failed()), damaged);
    EXPECT_FALSE(exists(files.previous()));
    EXPECT_TRUE(logged(L"'t1.cof' does not boot (status 145: not a TI C6000 COFF file"));
    EXPECT_TRUE(
        logged(L"booting the previous image 't1.cof.prev' in its place, the failed one "
               L"is kept as 't1.cof.failed'"));
    EXPECT_TRUE(logged(L"booted the previous image, now 't1.cof'"));
    EXPECT_FALSE(logged(L"Boot Fails"));

    // The next scan finds an ordinary folder: the board stays, nothing moves.
    UsbCtlr::EnumDevices(false, true, false);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(read(files.failed()), damaged);
}

TEST_F(LastGoodImageTest, MissingImageAlsoGivesWayToThePreviousOne) {
    put(files.previous(), good);
    host::DeleteFileW(files.image().c_str());
    attach(sim::BoardKind::T1);
    UsbCtlr::EnumDevices(false, true, false);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 1);
    EXPECT_EQ(read(files.image()), good);
    EXPECT_FALSE(exists(files.failed()));
    EXPECT_TRUE(logged(L"'t1.cof' does not boot (status 141: the file cannot be opened)"));
}

TEST_F(LastGoodImageTest, WithoutAPreviousImageTheBoardStaysOutAndNothingMoves) {
    put(files.image(), damaged);
    attach(sim::BoardKind::T1);
    UsbCtlr::EnumDevices(false, true, false);
    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_TRUE(logged(L"EnumDevices:: Boot Fails"));
    EXPECT_EQ(read(files.image()), damaged);
    EXPECT_FALSE(exists(files.failed()));
}

TEST_F(LastGoodImageTest, BoardThatFailsWithBothImagesLeavesTheFolderAsItWas) {
    const std::string older = good + "older";
    put(files.previous(), older);
    auto stuck = attach(sim::BoardKind::T1);
    stuck->reportState(dspInReset);
    UsbCtlr::EnumDevices(false, true, false);

    EXPECT_EQ(UsbCtlr::GetCtlrCount(), 0);
    EXPECT_TRUE(logged(L"the previous image does not boot either"));
    EXPECT_EQ(read(files.image()), good);
    EXPECT_EQ(read(files.previous()), older);
    EXPECT_FALSE(exists(files.failed()));
}

}  // namespace
}  // namespace boardtest
