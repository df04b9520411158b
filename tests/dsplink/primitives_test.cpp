// The driver primitives: control codes and buffer positions, size limits,
// the retry loop with its growing pauses, and giving the board up.
#include <vector>

#include "platform/last_error.h"
#include "platform/text.h"
#include "tests/dsplink/link_fixture.h"

using namespace linktest;
using namespace dsplink;

namespace {

std::vector<BYTE> pattern(int n) {
    std::vector<BYTE> bytes(n);
    for (int i = 0; i < n; ++i) bytes[i] = static_cast<BYTE>(i * 7 + 3);
    return bytes;
}

using PrimitivesTest = LinkTest;

TEST_F(PrimitivesTest, ClosedHandleAnswersNoUsbCommSilently) {
    for (HANDLE h : {NULL_HANDLE, INVALID_HANDLE_VALUE}) {
        CommPolicy_USB link(&owner, h);
        EXPECT_FALSE(link.isOpen());
        BYTE buffer[64] = {};
        DWORD statusSize = 64;
        int size = 8;
        EXPECT_EQ(link.primitiveGetStatus(buffer, &statusSize), dspNoUsbComm);
        EXPECT_EQ(link.primitiveGetData(buffer, &size), dspNoUsbComm);
        EXPECT_EQ(link.primitiveSendData(buffer, 8), dspNoUsbComm);
        // Even an out-of-range size is not looked at.
        EXPECT_EQ(link.primitiveSendData(buffer, 9000), dspNoUsbComm);
        EXPECT_EQ(usbLogCount(L"primitive"), 0);
    }
    EXPECT_TRUE(dsp->calls().empty());
    EXPECT_TRUE(owner.lines().empty());
}

TEST_F(PrimitivesTest, EachPrimitiveUsesItsControlCodeAndBufferPosition) {
    auto link = openLink();
    ASSERT_TRUE(link->isOpen());
    dsp->pushStatus(7, 42);
    dsp->setReply({1, 9, 0, 2, 0xAA, 0xBB});

    BYTE status[65] = {};
    DWORD statusSize = 65;
    EXPECT_EQ(link->primitiveGetStatus(status, &statusSize), dspOk);
    EXPECT_EQ(statusSize, 65u);
    EXPECT_EQ(status[2], 7);
    EXPECT_EQ(status[63], 42);

    const auto message = pattern(10);
    EXPECT_EQ(link->primitiveSendData(message.data(), 10), dspOk);

    BYTE reply[6] = {};
    int replySize = 6;
    EXPECT_EQ(link->primitiveGetData(reply, &replySize), dspOk);
    EXPECT_EQ(replySize, 6);
    EXPECT_EQ(reply[5], 0xBB);

    // Status and reply are read into the in-buffer, a frame goes out of the
    // out-buffer, and only the send asks for the byte count.
    struct Shape {
        DWORD code;
        bool inIsNull;
        DWORD inSize;
        bool outIsNull;
        DWORD outSize;
        bool returnedIsNull;
    };
    const Shape expected[] = {{0x00220424u, false, 65, true, 0, true},
                              {0x0022042Cu, true, 0, false, 10, false},
                              {0x00220430u, false, 6, true, 0, true}};
    const auto calls = dsp->calls();
    ASSERT_EQ(calls.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const Shape& e = expected[i];
        EXPECT_EQ(calls[i].code, e.code);
        EXPECT_EQ(calls[i].inIsNull, e.inIsNull);
        EXPECT_EQ(calls[i].inSize, e.inSize);
        EXPECT_EQ(calls[i].outIsNull, e.outIsNull);
        EXPECT_EQ(calls[i].outSize, e.outSize);
        EXPECT_EQ(calls[i].returnedIsNull, e.returnedIsNull);
    }
    EXPECT_EQ(calls[1].sent, message);
    EXPECT_TRUE(usbLog().empty());
}

TEST_F(PrimitivesTest, SizeLimitsOfSendAndGetData) {
    auto link = openLink();
    std::vector<BYTE> big(kFrameBufferSize + 8, 0);
    big[0] = 1;
    EXPECT_EQ(link->primitiveSendData(big.data(), 8184), dspOk);
    EXPECT_EQ(link->primitiveSendData(big.data(), 0), dspOk);
    EXPECT_EQ(dsp->countCalls(wire::IOCTL_DSP_SEND_DATA), 2);

    EXPECT_EQ(link->primitiveSendData(big.data(), 8185), dspUsbCommFailed);
    EXPECT_EQ(link->primitiveSendData(big.data(), -1), dspUsbCommFailed);
    int size = 8185;
    EXPECT_EQ(link->primitiveGetData(big.data(), &size), dspUsbCommFailed);
    EXPECT_EQ(size, 8185);
    size = -1;
    EXPECT_EQ(link->primitiveGetData(big.data(), &size), dspUsbCommFailed);
    size = 8184;
    EXPECT_EQ(link->primitiveGetData(big.data(), &size), dspOk);

    EXPECT_EQ(dsp->countCalls(wire::IOCTL_DSP_SEND_DATA), 2);
    EXPECT_EQ(dsp->countCalls(wire::IOCTL_DSP_GET_DATA), 1);
    EXPECT_EQ(usbLog(), (std::vector<std::wstring>{
                            L"primitiveSendData size wrong, 8185",
                            L"primitiveSendData size wrong, -1",
                            L"primitiveGetData size wrong, 8185",
                            L"primitiveGetData size wrong, -1",
                        }));
    EXPECT_TRUE(link->isOpen());
    EXPECT_TRUE(removals.empty());
}

TEST_F(PrimitivesTest, OneTransientFailureIsRetriedAfter50ms) {
    auto link = openLink();
    dsp->failNext(1, ERROR_GEN_FAILURE);
    BYTE block[64];
    DWORD size = 64;
    EXPECT_EQ(link->primitiveGetStatus(block, &size), dspOk);
    EXPECT_EQ(clock->totalSlept(), 50u);
    EXPECT_EQ(usbLog(), std::vector<std::wstring>{
                            L"IOFailure (31) encountered in CommPolicy_USB::primitiveGetStatus "
                            L"...retrying"});
    const auto calls = dsp->calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].tick - calls[0].tick, 50u);
    EXPECT_EQ(link->lastErrorCode(), 31u);
    EXPECT_TRUE(link->isOpen());
}

TEST_F(PrimitivesTest, FatalErrorsGiveUpAfterOneRetryAndReportRemoval) {
    for (DWORD code :
         {ERROR_INVALID_HANDLE, ERROR_DEVICE_NOT_CONNECTED, ERROR_INVALID_HANDLE_STATE}) {
        SCOPED_TRACE(code);
        removals.clear();
        const std::size_t logBefore = usbLog().size();
        auto newLines = [&] {
            auto all = usbLog();
            return std::vector<std::wstring>(all.begin() + logBefore, all.end());
        };
        TestOwner fresh;
        CommPolicy_USB link(&fresh, dsp->open());
        const auto message = pattern(200);
        dsp->failNext(1, code);
        const DWORD start = host::GetTickCount();
        const int closesBefore = dsp->closes();

        EXPECT_EQ(link.primitiveSendData(message.data(), 200), dspUsbCommFailed);

        EXPECT_EQ(newLines(),
                  (std::vector<std::wstring>{
                      host::wformat(L"IOFailure (%d) encountered in CommPolicy_USB::"
                                    L"primitiveSendData ...retrying",
                                    static_cast<int>(code)),
                      L"IOFailure encountered in CommPolicy_USB::primitiveSendData ...FAILURE!",
                      L"Spawning OnDeviceChange thread in 1 second...",
                  }));
        const auto lines = fresh.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], L"CommPolicy_USB::ioFailure() -- Handle set to NULL -- getLastError=" +
                                *host::FormatMessageText(code));
        EXPECT_EQ(link.deviceHandle(), NULL_HANDLE);
        EXPECT_EQ(dsp->closes(), closesBefore + 1);
        ASSERT_EQ(removals.size(), 1u);
        EXPECT_EQ(removals[0].event, 0x8004u);
        EXPECT_EQ(removals[0].tick - start, 1050u);

        // Once given up, the link stays closed and quiet.
        BYTE block[64];
        DWORD size = 64;
        int dataSize = 4;
        EXPECT_EQ(link.primitiveGetStatus(block, &size), dspNoUsbComm);
        EXPECT_EQ(link.primitiveSendData(message.data(), 4), dspNoUsbComm);
        EXPECT_EQ(link.primitiveGetData(block, &dataSize), dspNoUsbComm);
        EXPECT_EQ(newLines().size(), 3u);

        // The copy of the outgoing message survives the failure.
        link.dumpCtrlOut();
        EXPECT_EQ(fresh.lines().back(), dumpOf(L"Ctrl Out Raw:", message));
    }
}

TEST_F(PrimitivesTest, RetiredBoardIsClosedWithoutRemovalReport) {
    auto link = openLink();
    owner.removing = true;
    dsp->failNext(1, ERROR_DEVICE_NOT_CONNECTED);
    int size = 16;
    BYTE buffer[16];
    EXPECT_EQ(link->primitiveGetData(buffer, &size), dspUsbCommFailed);
    EXPECT_EQ(link->deviceHandle(), NULL_HANDLE);
    EXPECT_EQ(dsp->closes(), 1);
    EXPECT_EQ(clock->totalSlept(), 50u);
    EXPECT_TRUE(removals.empty());
    EXPECT_TRUE(owner.lines().empty());
    EXPECT_EQ(usbLogCount(L"Spawning OnDeviceChange"), 0);
    EXPECT_EQ(usbLogCount(L"primitiveGetData ...FAILURE!"), 1);
}

TEST_F(PrimitivesTest, HundredFailuresTakeTheirFullBackOff) {
    auto link = openLink();
    dsp->failNext(100, ERROR_GEN_FAILURE);
    dsp->pushStatus(4, 1);  // would answer an attempt 101 that must not happen
    BYTE block[64];
    DWORD size = 64;
    const DWORD start = host::GetTickCount();
    EXPECT_EQ(link->primitiveGetStatus(block, &size), dspUsbCommFailed);

    const auto calls = dsp->calls();
    ASSERT_EQ(calls.size(), 100u);
    for (std::size_t i = 1; i < calls.size(); ++i)
        EXPECT_EQ(calls[i].tick - calls[i - 1].tick, 50u * i) << "pause before attempt " << i + 1;
    EXPECT_EQ(clock->totalSlept(), 252500u + 1000u);
    EXPECT_EQ(usbLogCount(L"IOFailure (31) encountered in CommPolicy_USB::primitiveGetStatus "
                          L"...retrying"),
              100);
    EXPECT_EQ(usbLogCount(L"primitiveGetStatus ...FAILURE!"), 1);
    ASSERT_EQ(removals.size(), 1u);
    EXPECT_EQ(removals[0].tick - start, 253500u);
}

TEST_F(PrimitivesTest, RemovalWithoutReceiverGoesNowhere) {
    setDeviceChangeHook({});
    auto link = openLink();
    dsp->failNext(1, ERROR_INVALID_HANDLE);
    EXPECT_EQ(link->primitiveSendData(nullptr, 0), dspUsbCommFailed);
    EXPECT_FALSE(link->isOpen());
    EXPECT_EQ(usbLogCount(L"Spawning OnDeviceChange thread in 1 second..."), 1);
}

TEST_F(PrimitivesTest, DestructorReportsTheHandleItCloses) {
    auto link = openLink();
    const HANDLE h = link->deviceHandle();
    link.reset();
    EXPECT_EQ(dsp->closes(), 1);
    EXPECT_EQ(usbLog(), std::vector<std::wstring>{host::wformat(
                            L"CommPolicy_USB::~CommPolicy_USB() about to close handle #%x\n",
                            static_cast<unsigned>(h))});

    auto closed = openLink();
    dsp->failNext(1, ERROR_INVALID_HANDLE);
    closed->primitiveSendData(nullptr, 0);
    closed.reset();
    EXPECT_EQ(usbLog().back(), L"CommPolicy_USB::~CommPolicy_USB() skipping NULL handle\n");
}

TEST_F(PrimitivesTest, UnlockWithoutLockIsReportedAndHarmless) {
    auto link = openLink();
    link->unlock();
    EXPECT_EQ(usbLog(), std::vector<std::wstring>{L"Unlock mutex ... FAILURE!"});
    link->lock();
    link->lock();
    link->unlock();
    link->unlock();
    EXPECT_EQ(usbLog().size(), 1u);
}

}  // namespace
