#include <gtest/gtest.h>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "tests/server_session/session_fixture.h"

using namespace sessiontest;

namespace {
const Bytes kOkEmpty(8, 0);
}

TEST_F(SessionTest, EnumBoardsCountsTheRegisteredBoards) {
    startSession({sim::BoardKind::T1, sim::BoardKind::RF});
    send(control(0));
    EXPECT_EQ(receive(9), (Bytes{4, 0, 0, 0, 1, 0, 0, 0, 2}));
}

TEST_F(SessionTest, CofDownloadOfThreeBytesThenBoot) {
    startSession();
    send(control(1));
    EXPECT_EQ(receive(8), kOkEmpty);
    send(control(2, {0xAA, 0xBB, 0xCC}));
    EXPECT_EQ(receive(8), kOkEmpty);
    send(control(3));
    EXPECT_EQ(receive(8), kOkEmpty);
    EXPECT_EQ(root.readFile(installFolder + L"\\t1.cof"), "\xAA\xBB\xCC");
    // Three bytes are no image: the boot fails and the unit restarts.
    send(control(4));
    EXPECT_EQ(receive(8), (Bytes{15, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(owner.restarts, 1);
    EXPECT_TRUE(testing_support::logContains(L"DSP Boot fails! Rebooting to known state..."));
}

TEST_F(SessionTest, BootFromTheInstalledImageAnswersTheDspState) {
    startSession();
    send(control(4));
    EXPECT_EQ(readU32le(receive(8), 0), 4u);  // running
    EXPECT_EQ(owner.restarts, 0);
}

TEST_F(SessionTest, TwoChunksAreAppendedAndARestartEmptiesTheDownload) {
    testing_support::DebugCapture debug;
    startSession();
    send(control(1));
    receive(8);
    send(control(2, Bytes(100, 1)));
    receive(8);
    send(control(2, Bytes(50, 2)));
    receive(8);
    send(control(3));
    receive(8);
    const std::string file = root.readFile(installFolder + L"\\t1.cof");
    EXPECT_EQ(file, std::string(100, '\1') + std::string(50, '\2'));
    EXPECT_TRUE(debug.contains(L"COF DOWNLOAD: Open local file 't1.cof' success!"));
    send(control(1));
    receive(8);
    send(control(2, Bytes(10, 3)));
    receive(8);
    send(control(1));  // a second start without an end empties the download again
    receive(8);
    EXPECT_EQ(root.readFile(installFolder + L"\\t1.cof.part"), "");
    EXPECT_EQ(root.readFile(installFolder + L"\\t1.cof"), file);
}

TEST_F(SessionTest, DownloadHoldsItsFileExclusivelyAndLeavesTheImageBootable) {
    startSession();
    send(control(1));
    receive(8);
    // What a second session's start of the same kind's download does.
    HANDLE other = host::CreateFileW((installFolder + L"\\T1.COF.PART").c_str(),
                                     host::GENERIC_WRITE, 0, host::CREATE_ALWAYS);
    EXPECT_EQ(other, INVALID_HANDLE_VALUE);
    send(control(2, {1, 2, 3}));
    receive(8);
    send(control(4));  // boots the image in place
    EXPECT_EQ(readU32le(receive(8), 0), 4u);
    send(control(3));
    receive(8);
    other = host::CreateFileW((installFolder + L"\\t1.cof.part").c_str(), host::GENERIC_WRITE, 0,
                              host::CREATE_ALWAYS);
    EXPECT_NE(other, INVALID_HANDLE_VALUE);
    host::CloseHandle(other);
}

TEST_F(SessionTest, CofDataOrEndWithoutStartAnswerZeroAndSaySo) {
    startSession();
    send(control(2, {1, 2, 3}));
    EXPECT_EQ(receive(8), kOkEmpty);
    send(control(3));
    EXPECT_EQ(receive(8), kOkEmpty);
    EXPECT_TRUE(testing_support::logContains(L"COF Data ecountered without open file!"));
    EXPECT_TRUE(testing_support::logContains(L"COF END ecountered without open file!"));
}

TEST_F(SessionTest, UnknownSubCommandAnswersTheBoardStatusAndOneZeroByte) {
    startSession();
    send(control(9, {7, 7}));
    Bytes reply = receive(9);
    EXPECT_EQ(readU32le(reply, 0), 4u);
    EXPECT_EQ(readU32le(reply, 4), 1u);
    EXPECT_EQ(reply[8], 0);
    EXPECT_TRUE(testing_support::logContains(
        L"SW/Comm Error! Unknown opCode 9 in ServerThreadCallback, Rem_Control API!!"));
}

TEST_F(SessionTest, RebootAndCommandLineControlAnswerFirstThenRequestTheRestart) {
    startSession();
    send(control(5));
    EXPECT_EQ(receive(8), (Bytes{4, 0, 0, 0, 0, 0, 0, 0}));
    send(control(7));
    EXPECT_EQ(receive(8), (Bytes{4, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(owner.restarts, 2);
}
