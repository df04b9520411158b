// A damaged image uploaded and booted end to end: the boot answers 15 and the
// unit restarts; the restarted unit comes up with the board's previous image
// and says so, and the client can then put a good image in place.
#include <gtest/gtest.h>

#include <string>

#include "boards/error_log.h"
#include "server/remote_protocol.h"
#include "tests/e2e/tovel_program.h"
#include "tools/coffkit/damaged_images.h"
#include "tools/coffkit/dsp_version.h"

namespace {

using namespace e2e;

std::string control(std::uint8_t sub, const std::string& payload = {}) {
    return asString(remproto::encodeControl(sub, bytesOf(payload)));
}

// One download, the image in a single data request (small enough for one).
void upload(Client& client, const std::string& image) {
    const std::string ok(8, '\0');
    EXPECT_EQ(client.ask(control(1), 8), ok);
    EXPECT_EQ(client.ask(control(2, image), 8), ok);
    EXPECT_EQ(client.ask(control(3), 8), ok);
}

TEST_F(TovelProgram, DamagedUploadRestartsAndTheBoardReturnsWithItsPreviousImage) {
    const std::wstring image = installFolder + L"\\t1.cof";
    start({"--boards", "t1"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    const std::string before = root.readFile(image);
    const std::string damaged = asString(coffkit::damagedImages()[4].bytes);  // wrong target ID

    upload(*client, damaged);
    EXPECT_TRUE(
        logEventually(L"COF DOWNLOAD: 't1.cof' is stored but will not boot: not a TI "
                      L"C6000 COFF file (target ID) (COFF reader result 145)!"));
    EXPECT_EQ(client->ask(control(4), 8), std::string("\x0F\0\0\0\0\0\0\0", 8));
    client->close();
    ASSERT_EQ(tovel->waitForExit(20s), 22) << outputText();

    start({"--boards", "t1"});
    client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(logCount(L"'t1.cof' does not boot (status 145"), 1);
    EXPECT_EQ(logCount(L"booted the previous image, now 't1.cof'"), 1);
    EXPECT_EQ(root.readFile(image), before);
    EXPECT_EQ(root.readFile(image + L".failed"), damaged);

    upload(*client, asString(coffkit::buildVersionedImage(102, 9, 900)));
    EXPECT_EQ(client->ask(control(4), 8), std::string("\x04\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(root.readFile(image + L".prev"), before);
    client->close();
    stopAndExpectCleanExit();
}

}  // namespace
