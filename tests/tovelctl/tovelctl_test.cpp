// Runs the tovelctl program against the fake controller.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/child_process.h"
#include "server/remote_protocol.h"
#include "tests/support/program_run.h"
#include "tests/support/test_support.h"
#include "tests/tovelctl/fake_controller.h"
#include "tools/coffkit/damaged_images.h"

namespace {

using Result = testing_support::ProgramRun;
using Bytes = std::vector<std::uint8_t>;

Result tovelctl(const std::string& args) {
    std::vector<std::string> words;
    std::istringstream split(args);
    for (std::string word; split >> word;) words.push_back(word);
    return testing_support::runProgram("tovelctl", words);
}

std::string portArg(const FakeController& fake) {
    return "--port " + std::to_string(fake.port()) + " ";
}

int lineCount(const std::string& s) {
    return static_cast<int>(std::count(s.begin(), s.end(), '\n'));
}

}  // namespace

TEST(Tovelctl, VersionInTextAndJson) {
    FakeController fake;
    Result text = tovelctl(portArg(fake) + "version");
    EXPECT_EQ(text.exitCode, 0) << text.output;
    EXPECT_NE(text.output.find("version: 191213"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("4 (No Error! / Unknown or Not a DSP Error!)"), std::string::npos);

    Result json = tovelctl(portArg(fake) + "--json version");
    EXPECT_EQ(json.exitCode, 0);
    EXPECT_EQ(json.output,
              "{\"command\":\"version\",\"version\":191213,\"status\":4,\"statusShort\":\"No "
              "Error!\",\"statusText\":\"Unknown or Not a DSP Error!\"}\n");
}

TEST(Tovelctl, StatusShowsTheDecodedBlock) {
    FakeController fake;
    Result text = tovelctl(portArg(fake) + "status");
    EXPECT_EQ(text.exitCode, 0) << text.output;
    EXPECT_NE(text.output.find("status:   0 (success)"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("state:    4 (No Error!"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("sequence: 37"), std::string::npos) << text.output;

    Result json = tovelctl(portArg(fake) + "--json status");
    EXPECT_EQ(lineCount(json.output), 1) << json.output;
    EXPECT_NE(json.output.find("\"state\":4,"), std::string::npos) << json.output;
    EXPECT_NE(json.output.find("\"sequence\":37"), std::string::npos) << json.output;
}

TEST(Tovelctl, CofDownloadSendsTheFileAndReportsEachReplyInJson) {
    testing_support::TempUnitRoot root;
    FakeController fake;
    std::string image(10000, '\0');
    std::iota(image.begin(), image.end(), 'a');
    const std::string path = root.path() + "/image.cof";
    std::ofstream(path, std::ios::binary) << image;
    // Not an image: only --force sends it.
    Result run = tovelctl(portArg(fake) + "--json cof-download --force " + path);
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_EQ(lineCount(run.output), 5) << run.output;  // verdict, start, two pieces, end
    EXPECT_NE(run.output.find("{\"command\":\"cof-end\""), std::string::npos);
    const auto received = fake.cofFile();
    EXPECT_EQ(std::string(received.begin(), received.end()), image);

    Result text = tovelctl(portArg(fake) + "cof-download --force " + path);  // no terminal, no bar
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_EQ(text.output.find('['), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("sent:"), std::string::npos) << text.output;
}

TEST(Tovelctl, CofDownloadShowsTheReaderVerdictAndRefusesAnImageThatWillNotBoot) {
    testing_support::TempUnitRoot root;
    FakeController fake;
    const std::string good = root.path() + "/good.cof";
    const auto image = coffkit::undamagedImage();
    std::ofstream(good, std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), static_cast<long>(image.size()));
    Result sent = tovelctl(portArg(fake) + "cof-download " + good);
    EXPECT_EQ(sent.exitCode, 0) << sent.output;
    EXPECT_NE(sent.output.find("verdict:  boots"), std::string::npos) << sent.output;
    EXPECT_NE(sent.output.find("sections: 2"), std::string::npos) << sent.output;
    EXPECT_EQ(fake.cofFile(), image);

    const std::string bad = root.path() + "/bad.cof";
    std::ofstream(bad, std::ios::binary) << std::string(30, 'x');
    const std::size_t requests = fake.requests().size();
    Result refused = tovelctl(portArg(fake) + "--json cof-download " + bad);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.output.find("\"verdict\":\"will not boot\",\"reason\":\"not a TI C6000 "
                                  "COFF file (target ID)\",\"readerSays\":\"CommPolicy_USB: "),
              std::string::npos)
        << refused.output;
    EXPECT_NE(refused.output.find("--force sends it anyway"), std::string::npos);
    EXPECT_EQ(fake.requests().size(), requests) << "a refused image costs no connection";
}

TEST(Tovelctl, RawAndAtomicRequestsGoOutAsGiven) {
    FakeController fake;
    EXPECT_EQ(tovelctl(portArg(fake) + "prim-send 1 0x21 0a0b").exitCode, 0);
    Result get = tovelctl(portArg(fake) + "--json prim-get 16");
    EXPECT_NE(get.output.find("\"length\":20"), std::string::npos) << get.output;
    Result atomic = tovelctl(portArg(fake) + "atomic-get 0x30 0x31 8 01");
    EXPECT_NE(atomic.output.find("00 01 02 03 04 05 06 07"), std::string::npos) << atomic.output;
    EXPECT_EQ(tovelctl(portArg(fake) + "atomic-send 33 0a0b0c").exitCode, 0);
    Result boot = tovelctl(portArg(fake) + "boot");
    EXPECT_NE(boot.output.find("15 (Wrong COF Version!)"), std::string::npos) << boot.output;

    auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(requests[0], (Bytes{0, 1, 0x21, 0, 2, 0x0a, 0x0b}));
    EXPECT_EQ(requests[2], remproto::encodeAtomicGet(0x30, Bytes{1}, 0x31, 8));
    EXPECT_EQ(requests[3], remproto::encodeAtomicSend(33, Bytes{0x0a, 0x0b, 0x0c}));
}

TEST(Tovelctl, RefusedOrClosedConnectionIsOneLineAndAFailure) {
    std::uint16_t port;
    {
        FakeController gone;
        port = gone.port();
    }
    FakeController closing;
    closing.closeAtRequest(1);
    for (const auto& [args, says] :
         {std::pair{"--port " + std::to_string(port) + " --connect-timeout 100 version", "10061"},
          {portArg(closing) + "--json boards", "closed"}}) {
        Result run = tovelctl(args);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(lineCount(run.output), 1) << run.output;
        EXPECT_NE(run.output.find(says), std::string::npos) << run.output;
    }
}

TEST(Tovelctl, RefusedConnectionIsRetriedUntilTheControllerListens) {
    std::uint16_t port;
    {
        FakeController gone;
        port = gone.port();
    }
    host::ChildProcess program(
        TOVEL_BUILD_DIR "/tovelctl",
        {"--port", std::to_string(port), "--connect-timeout", "60000", "--json", "version"},
        "/dev/null");
    // The controller listens only a while later, as after a client has left.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    FakeController fake(port);
    EXPECT_EQ(program.waitForExit(std::chrono::seconds(30)).value_or(-1), 0);
    EXPECT_EQ(fake.requests().size(), 1u);
}

TEST(Tovelctl, BadArgumentsExitOneAndCostNoConnection) {
    FakeController fake;
    for (const char* args :
         {"atomic-send 0x21 0a0", "atomic-send 256", "cof-download /no/such/file",
          "no-such-command", "atomic-get 1 2", "--no-such-option version", "status then",
          "then status", "status then then version", "status then --json version",
          "status then atomic-send 256", "--port many version", ""}) {
        Result run = tovelctl(portArg(fake) + args);
        EXPECT_EQ(run.exitCode, 1) << args << ": " << run.output;
        EXPECT_FALSE(run.output.empty()) << args;
    }
    EXPECT_EQ(fake.connections(), 0);
}

TEST(Tovelctl, CommandsJoinedByThenShareOneConnectionAndRepeatTogether) {
    FakeController fake;
    Result run = tovelctl(portArg(fake) +
                          "--json --repeat 2 --interval 0 status then atomic-get 0x7e 0x7e 4 "
                          "cafe0001 then version");
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_EQ(fake.connections(), 1);
    const auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 6u);
    for (std::size_t round : {0u, 3u}) {
        EXPECT_EQ(requests[round][0], 2);      // Rem_GetStatus
        EXPECT_EQ(requests[round + 1][0], 3);  // Rem_AtomicGet
        EXPECT_EQ(requests[round + 2][1], 6);  // RemCtl_Version
    }
    EXPECT_EQ(lineCount(run.output), 6) << run.output;
}

// A counted repeat is the test above; without a limit the repeats go on
// until the controller goes away.
TEST(Tovelctl, RepeatWithoutALimitAsksUntilTheConnectionEnds) {
    FakeController closing;
    closing.closeAtRequest(4);
    Result open = tovelctl(portArg(closing) + "--repeat 0 --interval 0 version");
    EXPECT_EQ(open.exitCode, 2) << open.output;
    EXPECT_EQ(closing.requests().size(), 4u);
}
