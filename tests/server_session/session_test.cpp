#include <gtest/gtest.h>

#include "boards/error_log.h"
#include "tests/server_session/session_fixture.h"
#include "tests/support/waiting.h"

using namespace sessiontest;

namespace {
constexpr std::uint8_t kEcho = 0x7E;
const Bytes kVersionRequest = {5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const Bytes kVersionReply = {4, 0, 0, 0, 4, 0, 0, 0, 0xED, 0xEA, 0x02, 0x00};
}  // namespace

TEST_F(SessionTest, PrimSendInThreePiecesIsTracedTwiceAndHandedOnOnce) {
    testing_support::DebugCapture debug;
    startSession();
    Bytes request = {0, 1, 0x33, 0, 25};
    for (int i = 0; i < 25; ++i) request.push_back(static_cast<std::uint8_t>(i));
    ASSERT_EQ(request.size(), 30u);
    // Each piece is seen before the next is sent, so two pieces never arrive in one receive.
    const wchar_t* fragments[] = {L"Msg Fragment(Prim_Send): needed 30 have 10",
                                  L"Msg Fragment(Prim_Send): needed 30 have 20"};
    for (int piece = 0; piece < 3; ++piece) {
        send(Bytes(request.begin() + piece * 10, request.begin() + piece * 10 + 10));
        if (piece < 2) {
            EXPECT_TRUE(
                testing_support::eventually([&] { return debug.contains(fragments[piece]); }));
        }
    }
    // A following status request is answered after the send was served.
    send({2, 0, 0, 0, 0});
    receive(73);
    auto history = boards[0]->commandHistory();
    ASSERT_EQ(boards[0]->commandCount(0x33), 1u);
    EXPECT_EQ(history.back().payload.size(), 25u);
}

TEST_F(SessionTest, FourBytesAreNotFramedTheFifthIs) {
    startSession();
    send({2, 0, 0, 0});
    EXPECT_TRUE(quietFor(100));
    send({0});
    Bytes reply = receive(73);
    EXPECT_EQ(readU32le(reply, 0), 0u);
    EXPECT_EQ(readU32le(reply, 4), 65u);
    EXPECT_EQ(reply[8 + 1], 1);  // the status block's device byte
}

TEST_F(SessionTest, PrimGetSizeLimits) {
    startSession();
    send({1, 1, 0, 0x1F, 0xF4});  // 8180 + 4 bytes asked of the link
    Bytes reply = receive(8);
    EXPECT_EQ(readU32le(reply, 4), 8184u);
    receive(8184);
    send({1, 1, 0, 0x1F, 0xF5});  // 8181: refused by the link, answered without data
    reply = receive(8);
    EXPECT_EQ(readU32le(reply, 0), 12u);
    EXPECT_EQ(readU32le(reply, 4), 0u);
    EXPECT_TRUE(testing_support::logContains(L"primitiveGetData size wrong, 8185"));
}

TEST_F(SessionTest, RefusedAtomicGetLengthAnswersTwelveWithoutData) {
    startSession();
    send(encodeAtomicGet(kEcho, Bytes{1}, kEcho, 8181));
    Bytes reply = receive(8);
    EXPECT_EQ(readU32le(reply, 0), 12u);
    EXPECT_EQ(readU32le(reply, 4), 0u);
    // The command reached the board; its reply read was refused.
    EXPECT_EQ(boards[0]->commandCount(kEcho), 1u);
    EXPECT_TRUE(testing_support::logContains(L"primitiveGetData size wrong, 8185"));
    send(kVersionRequest);
    EXPECT_EQ(receive(12), kVersionReply);
    // A board being removed answers 11 to it too.
    bus->detach(1);
    UsbCtlr::EnumDevices(false, true, false);
    send(encodeAtomicGet(kEcho, Bytes{1}, kEcho, 8181));
    reply = receive(8);
    EXPECT_EQ(readU32le(reply, 0), 11u);
    EXPECT_EQ(readU32le(reply, 4), 0u);
}

TEST_F(SessionTest, UnknownOpcodeStallsTheConnectionForGood) {
    testing_support::DebugCapture debug;
    startSession();
    send({6, 0, 0, 0, 0});
    send(kVersionRequest);
    EXPECT_TRUE(quietFor(300));
    EXPECT_TRUE(debug.contains(L"Bad command! buffer[0]=6"));
}

TEST_F(SessionTest, ClientCloseEndsTheSessionInStateOne) {
    startSession();
    closeClient();
    ASSERT_TRUE(waitUntilDone());
    EXPECT_EQ(session->state(), 1);
}

TEST_F(SessionTest, ReceiveErrorIsReportedWithItsText) {
    startSession();
    host::LINGER reset{1, 0};
    host::setsockopt(client, host::SOL_SOCKET, host::SO_LINGER,
                     reinterpret_cast<const char*>(&reset), sizeof reset);
    closeClient();
    ASSERT_TRUE(waitUntilDone());
    EXPECT_EQ(session->state(), 4);
    EXPECT_TRUE(testing_support::logContains(L"Socket Error in Receive: WSAECONNRESET \n"));
}

TEST_F(SessionTest, IdleSessionIsReportedHungInStateThree) {
    startSession();
    send(kVersionRequest);
    receive(12);
    // Let the thread reach its next receive.
    EXPECT_TRUE(quietFor(50));
    EXPECT_FALSE(session->isDoneOrHung());
    clock->advance(Tovel::kHungAfterMs);
    EXPECT_FALSE(session->isDoneOrHung());
    clock->advance(1);
    EXPECT_TRUE(session->isDoneOrHung());
    EXPECT_EQ(testing_support::logCount(L"Tovel hung in state 3, closing socket...curTime="), 1);
    EXPECT_TRUE(testing_support::logContains(L"thread termintated."));
}

TEST_F(SessionTest, RetiredBoardAnswersElevenAndStaysAliveWhileHeld) {
    startSession();
    bus->detach(1);
    UsbCtlr::EnumDevices(false, true, false);
    send(encodeAtomicSend(0x21, {}));
    EXPECT_EQ(readU32le(receive(8), 0), 11u);
    // A purge more than a minute later keeps the controller this session holds.
    clock->advance(61000);
    UsbCtlr::EnumDevices(false, true, false);
    send(encodeAtomicSend(0x21, {}));
    EXPECT_EQ(readU32le(receive(8), 0), 11u);
}

TEST_F(SessionTest, HungDspAnswersThirteenOnceTheHandshakeHasTimedOut) {
    startSession();
    boards[0]->freeze(true);
    send(encodeAtomicGet(126, Bytes{1, 2, 3, 4}, 126, 4));
    // The link polls the status block back to back: nothing comes before
    // the handshake time-out has passed.
    EXPECT_TRUE(quietFor(50));
    clock->advance(4990);
    EXPECT_TRUE(quietFor(50));
    clock->advance(20);
    // The reply carries the length asked for, whatever the status.
    EXPECT_EQ(readU32le(receive(12), 0), 13u);
    // The board recovers; the same session goes on.
    boards[0]->freeze(false);
    send(encodeAtomicGet(126, Bytes{1, 2, 3, 4}, 126, 4));
    const Bytes reply = receive(12);
    ASSERT_EQ(reply.size(), 12u);
    EXPECT_EQ(readU32le(reply, 0), 0u);
    EXPECT_EQ(Bytes(reply.begin() + 8, reply.end()), (Bytes{1, 2, 3, 4}));
}

TEST_F(SessionTest, FullBufferEndsTheConnectionAtOnceWhileTheSessionIsHeld) {
    startSession();
    // A long-form request larger than the receive buffer can never complete.
    send(control(2, Bytes(Tovel::kRecvBufferSize, 0xAB)));
    char byte;
    // The client sees the end (not a time-out) although nobody purged the session.
    EXPECT_EQ(host::recv(client, &byte, 1, 0), 0);
    EXPECT_TRUE(waitUntilDone());
}
