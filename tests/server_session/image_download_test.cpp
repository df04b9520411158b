// Image downloads that can go wrong: the download goes beside the image and
// replaces it in one step, an interrupted one changes nothing, and a damaged
// image that fails its boot gives way to the previous one after the restart.
#include <gtest/gtest.h>

#include "boards/error_log.h"
#include "boards/kind_image.h"
#include "tests/server_session/session_fixture.h"
#include "tests/support/waiting.h"
#include "tools/coffkit/damaged_images.h"
#include "tools/coffkit/dsp_version.h"

using namespace sessiontest;

namespace {

class ImageDownloadTest : public SessionTest {
  protected:
    // Start, data in chunks the receive buffer holds, end.
    void upload(const std::vector<std::uint8_t>& image) {
        send(control(1));
        receive(8);
        for (std::size_t at = 0; at < image.size(); at += 4096) {
            const std::size_t n = std::min<std::size_t>(4096, image.size() - at);
            send(control(2, Bytes(image.begin() + static_cast<std::ptrdiff_t>(at),
                                  image.begin() + static_cast<std::ptrdiff_t>(at + n))));
            receive(8);
        }
        send(control(3));
        receive(8);
    }
    std::uint32_t bootStatus() {
        send(control(4));
        return readU32le(receive(8), 0);
    }
    // The client goes away and the unit starts again: a fresh registry finds
    // the board (running its flash program) and boots it.
    void restartUnit() {
        endSession();
        UsbCtlr::WaitForDeviceChangeThreads();
        UsbCtlr::ResetRegistryForTest();
        bus->detachAll(false);
        boards.clear();
        startSession();
    }
    std::string file(const std::wstring& path) { return root.readFile(path); }
    static std::string text(const std::vector<std::uint8_t>& bytes) {
        return {bytes.begin(), bytes.end()};
    }

    const KindImage t1{L"t1.cof"};
};

TEST_F(ImageDownloadTest, CompletedDownloadReplacesTheImageAndKeepsThePreviousOne) {
    startSession();
    const std::string before = file(t1.image());
    const auto image = coffkit::buildVersionedImage(102, 9, 3000);
    upload(image);
    EXPECT_EQ(file(t1.image()), text(image));
    EXPECT_EQ(file(t1.previous()), before);
    EXPECT_FALSE(KindImage::exists(t1.download()));
    EXPECT_FALSE(testing_support::logContains(L"will not boot"));
    EXPECT_EQ(bootStatus(), 4u);
    EXPECT_EQ(boards[0]->programVersion(), (sim::ProgramVersion{102, 9}));
}

TEST_F(ImageDownloadTest, InterruptedUploadLeavesTheImageByteForByte) {
    startSession();
    const std::string before = file(t1.image());
    send(control(1));
    receive(8);
    send(control(2, Bytes(1000, 0xEE)));
    receive(8);
    closeClient();  // the client resets mid-upload
    ASSERT_TRUE(waitUntilDone());
    EXPECT_EQ(file(t1.image()), before);
    EXPECT_FALSE(KindImage::exists(t1.download()));
    EXPECT_FALSE(KindImage::exists(t1.previous()));
}

TEST_F(ImageDownloadTest, EveryDamagedUploadIsStoredFlaggedAndOutlivedByThePreviousImage) {
    startSession();
    std::string good = file(t1.image());
    sim::ProgramVersion goodVersion{102, 2};
    int round = 0;
    for (const coffkit::DamagedImage& damaged : coffkit::damagedImages()) {
        SCOPED_TRACE(damaged.name);
        ++round;
        upload(damaged.bytes);
        EXPECT_EQ(file(t1.image()), text(damaged.bytes));
        EXPECT_EQ(file(t1.previous()), good);
        EXPECT_EQ(
            testing_support::logCount(L"COF DOWNLOAD: 't1.cof' is stored but will not boot: "),
            round);
        const int restarts = owner.restarts;
        EXPECT_EQ(bootStatus(), 15u);
        EXPECT_EQ(owner.restarts, restarts + 1);

        restartUnit();
        ASSERT_EQ(UsbCtlr::GetCtlrCount(), 1) << "the board is out of reach";
        EXPECT_EQ(boards[0]->programVersion(), goodVersion);
        EXPECT_EQ(file(t1.image()), good);
        EXPECT_EQ(file(t1.failed()), text(damaged.bytes));
        EXPECT_EQ(testing_support::logCount(L"booted the previous image, now 't1.cof'"), round);

        // The client that made the mistake puts it right.
        goodVersion = {102, static_cast<std::uint16_t>(10 + round)};
        const auto fixed = coffkit::buildVersionedImage(goodVersion.major, goodVersion.minor, 900);
        upload(fixed);
        EXPECT_EQ(bootStatus(), 4u);
        EXPECT_EQ(boards[0]->programVersion(), goodVersion);
        good = text(fixed);
    }
    EXPECT_EQ(round, 13);
    EXPECT_TRUE(testing_support::logContains(
        L"COF DOWNLOAD: 't1.cof' is stored but will not boot: not a TI C6000 COFF file (target "
        L"ID) (COFF reader result 145)!"));
}

}  // namespace
