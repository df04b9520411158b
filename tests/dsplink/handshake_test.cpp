// The status/sequence handshake: framing, the sequence rules, the waiting
// rules for each state the DSP may show, reply checks and the diagnostics.
#include <vector>

#include "tests/dsplink/link_fixture.h"

using namespace linktest;
using namespace dsplink;

namespace {

class HandshakeTest : public LinkTest {
  protected:
    // Brings a new link in step with a DSP whose count is `sequence`.
    std::unique_ptr<CommPolicy_USB> linkInStepAt(BYTE sequence) {
        auto link = openLink();
        dsp->pushStatus(dspRunning, sequence);
        dsp->pushStatus(dspRunning, sequence);
        link->initSeqNum();
        EXPECT_FALSE(link->sequenceInitNeeded());
        EXPECT_EQ(link->sequenceNumber(), sequence);
        return link;
    }

    std::vector<DWORD> callCodes() const {
        std::vector<DWORD> codes;
        for (const auto& c : dsp->calls()) codes.push_back(c.code);
        return codes;
    }
};

constexpr DWORD S = wire::IOCTL_DSP_GET_STATUS;
constexpr DWORD W = wire::IOCTL_DSP_SEND_DATA;
constexpr DWORD R = wire::IOCTL_DSP_GET_DATA;

TEST_F(HandshakeTest, NewLinkAdoptsTheDspCountBeforeItsFirstCommand) {
    auto link = openLink();
    EXPECT_TRUE(link->sequenceInitNeeded());
    EXPECT_EQ(link->sequenceNumber(), 1);
    dsp->pushStatus(dspRunning, 10);
    dsp->pushStatus(dspRunning, 10);
    dsp->pushStatus(dspCommandDone, 12);
    const BYTE data[] = {0xD0, 0xD1, 0xD2};

    EXPECT_EQ(link->atomicSend(0x42, data, 3), dspOk);

    EXPECT_EQ(callCodes(), (std::vector<DWORD>{S, S, W, S}));
    EXPECT_EQ(dsp->sentFrames()[0], (std::vector<BYTE>{1, 0x42, 0, 3, 0xD0, 0xD1, 0xD2}));
    EXPECT_EQ(owner.lines(), std::vector<std::wstring>{
                                 L"CommPolicy_USB::initSeqNum() initNoBoot forces dspSN to 10\n"});
    EXPECT_EQ(link->sequenceNumber(), 12);
    EXPECT_FALSE(link->sequenceInitNeeded());
}

TEST_F(HandshakeTest, LongPayloadCarriesItsLengthHighByteFirst) {
    auto link = linkInStepAt(0);
    dsp->pushStatus(dspCommandDone, 2);
    dsp->pushStatus(dspCommandDone, 4);
    std::vector<BYTE> data(8200, 0x5A);
    EXPECT_EQ(link->atomicSend(3, data.data(), 8180), dspOk);
    EXPECT_EQ(link->atomicSend(4, nullptr, 300), dspOk);
    const auto frames = dsp->sentFrames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].size(), 8184u);
    EXPECT_EQ(frames[0][2], 0x1F);
    EXPECT_EQ(frames[0][3], 0xF4);
    // Without data the payload goes out as zeros.
    EXPECT_EQ(frames[1].size(), 304u);
    EXPECT_EQ(frames[1][2], 1);
    EXPECT_EQ(frames[1][3], 44);
    EXPECT_EQ(frames[1][303], 0);

    // One byte more than a frame holds, or a negative size, is not sent and
    // leaves the count alone.
    EXPECT_EQ(link->atomicSend(3, data.data(), 8181), dspUsbCommFailed);
    EXPECT_EQ(link->atomicSend(3, data.data(), -3), dspUsbCommFailed);
    EXPECT_EQ(dsp->countCalls(W), 2);
    EXPECT_EQ(usbLogCount(L"primitiveSendData size wrong, 8185"), 1);
    EXPECT_FALSE(link->sequenceInitNeeded());
}

TEST_F(HandshakeTest, SequenceNumberWrapsFrom255To1) {
    auto link = linkInStepAt(253);
    for (BYTE sequence : {255, 1, 3}) dsp->pushStatus(dspCommandDone, sequence);
    EXPECT_EQ(link->atomicSend(1, nullptr, 0), dspOk);
    EXPECT_EQ(link->sequenceNumber(), 255);
    EXPECT_EQ(link->atomicSend(1, nullptr, 0), dspOk);
    EXPECT_EQ(link->sequenceNumber(), 1);
    EXPECT_EQ(link->atomicSend(1, nullptr, 0), dspOk);
    EXPECT_EQ(link->sequenceNumber(), 3);
}

TEST_F(HandshakeTest, AckThenDoneCompletesTheCommand) {
    auto link = linkInStepAt(20);
    dsp->pushStatus(dspRunning, 20);  // the previous command, still showing
    dsp->pushStatus(dspAck, 22);
    dsp->pushStatus(dspCommandDone, 22);
    EXPECT_EQ(link->atomicSend(5, nullptr, 0), dspOk);
    EXPECT_EQ(dsp->countCalls(S), 2 + 3);
    EXPECT_FALSE(link->sequenceInitNeeded());
    EXPECT_EQ(owner.lines().size(), 1u);  // only the adoption line
}

TEST_F(HandshakeTest, SecondUnexpectedStatusIsAMixupWithBothDumps) {
    auto link = linkInStepAt(20);
    const std::vector<BYTE> lastReply = {1, 0x11, 0, 2, 0xCA, 0xFE};
    dsp->setReply(lastReply);
    int replySize = 6;
    BYTE scratch[8];
    ASSERT_EQ(link->primitiveGetData(scratch, &replySize), dspOk);

    dsp->pushStatus(dspAck, 22);
    dsp->pushStatus(dspAck, 22);
    const BYTE data[] = {9, 8, 7};
    EXPECT_EQ(link->atomicSend(0x33, data, 3), dspMsgMixup);

    const auto lines = owner.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1],
              L"CommPolicy_USB::waitForStatusOrTimeout() -- found unexpected dspStatus=7! "
              L"dspSN=22 Last control send:");
    EXPECT_EQ(lines[2], dumpOf(L"Ctrl Out Raw:", {1, 0x33, 0, 3, 9, 8, 7}));
    EXPECT_EQ(lines[3], dumpOf(L"Ctrl In Raw:", lastReply));
    EXPECT_TRUE(link->sequenceInitNeeded());

    // The next command re-reads the DSP's count before it is sent.
    dsp->pushStatus(dspCommandDone, 24);
    dsp->pushStatus(dspCommandDone, 24);
    dsp->pushStatus(dspCommandDone, 26);
    const std::size_t before = dsp->calls().size();
    EXPECT_EQ(link->atomicSend(0x34, nullptr, 0), dspOk);
    const auto codes = callCodes();
    EXPECT_EQ(std::vector<DWORD>(codes.begin() + before, codes.end()),
              (std::vector<DWORD>{S, S, W, S}));
    EXPECT_EQ(owner.lines().back(),
              L"CommPolicy_USB::initSeqNum() initNoBoot forces dspSN to 24\n");
}

TEST_F(HandshakeTest, BadCommandUnderTheAwaitedNumberEndsAtOnce) {
    auto link = linkInStepAt(50);
    dsp->pushStatus(dspBadCommand, 52);
    dsp->pushStatus(dspResultReady, 52);
    BYTE reply[4] = {};
    int replyLength = 4;
    EXPECT_EQ(link->atomicGet(7, nullptr, 0, 8, reply, &replyLength), dspBadCommand);
    EXPECT_EQ(dsp->countCalls(R), 0);
    EXPECT_FALSE(link->sequenceInitNeeded());
    EXPECT_EQ(owner.lines().size(), 1u);
}

TEST_F(HandshakeTest, BadCommandUnderAnOlderNumberIsIgnored) {
    auto link = linkInStepAt(50);
    dsp->pushStatus(dspBadCommand, 50);
    dsp->pushStatus(dspBadCommand, 50);
    dsp->pushStatus(dspResultReady, 52);
    dsp->setReply({1, 8, 0, 2, 0x12, 0x34});
    BYTE reply[2] = {};
    int replyLength = 2;
    EXPECT_EQ(link->atomicGet(7, nullptr, 0, 8, reply, &replyLength), dspOk);
    EXPECT_EQ(reply[0], 0x12);
    EXPECT_EQ(reply[1], 0x34);
    EXPECT_EQ(dsp->countCalls(S), 2 + 3);
}

TEST_F(HandshakeTest, AdoptionAcceptsAResetDspButNotAnIdleOne) {
    {
        auto link = openLink();
        dsp->pushStatus(dspInReset, 77);
        dsp->pushStatus(dspInReset, 77);
        link->initSeqNum();
        EXPECT_FALSE(link->sequenceInitNeeded());
        EXPECT_EQ(link->sequenceNumber(), 77);
        EXPECT_EQ(owner.lines(),
                  (std::vector<std::wstring>{
                      L"CommPolicy_USB::initSeqNum() --  found invalid dspStatus=2!",
                      L"CommPolicy_USB::initSeqNum() initNoBoot forces dspSN to 77\n"}));
    }
    {
        TestOwner idleOwner;
        CommPolicy_USB link(&idleOwner, dsp->open());
        dsp->pushStatus(dspRunning, 5);  // the first read does not count
        dsp->pushStatus(dspIdled, 9);
        dsp->pushStatus(dspCommandDone, 3);
        EXPECT_EQ(link.atomicSend(1, nullptr, 0), dspOk);  // goes ahead with the old count
        EXPECT_TRUE(link.sequenceInitNeeded());
        EXPECT_EQ(idleOwner.lines(),
                  std::vector<std::wstring>{L"CommPolicy_USB::initSeqNum() --  found invalid "
                                            L"dspStatus=3!"});
    }
}

TEST_F(HandshakeTest, FailedStatusReadDuringAdoptionLeavesTheLinkOutOfStep) {
    auto link = openLink();
    owner.removing = true;  // keep the give-up path short
    dsp->pushStatus(dspRunning, 5);
    dsp->failNext(1, ERROR_GEN_FAILURE);  // first read: retried
    dsp->failNext(1, ERROR_DEVICE_NOT_CONNECTED);
    link->initSeqNum();
    EXPECT_TRUE(link->sequenceInitNeeded());
    EXPECT_EQ(link->sequenceNumber(), 1);
    EXPECT_FALSE(link->isOpen());
    EXPECT_EQ(link->atomicSend(1, nullptr, 0), dspNoUsbComm);
}

TEST_F(HandshakeTest, ReplyFromTheWrongOpcodeOrDeviceIsAMixup) {
    struct Case {
        std::vector<BYTE> reply;
        std::wstring line;
    };
    const Case cases[] = {
        {{1, 0x21, 0x00, 0x04, 1, 2, 3, 4},
         L"CommPolicy_USB::privateGetData message mixup! Expected Opcode=32 device=1 got "
         L"device=1 Opcode=33  sizeHi=0 sizeLo=4"},
        {{2, 0x20, 0x1F, 0xAB, 1, 2, 3, 4},
         L"CommPolicy_USB::privateGetData message mixup! Expected Opcode=32 device=1 got "
         L"device=2 Opcode=32  sizeHi=1f sizeLo=ab"},
    };
    for (const auto& c : cases) {
        TestOwner caseOwner;
        CommPolicy_USB link(&caseOwner, dsp->open());
        dsp->pushStatus(dspRunning, 60);
        dsp->pushStatus(dspRunning, 60);
        dsp->pushStatus(dspResultReady, 62);
        dsp->setReply(c.reply);
        const BYTE request[] = {0xEE};
        BYTE reply[4] = {};
        int replyLength = 4;
        EXPECT_EQ(link.atomicGet(0x1F, request, 1, 0x20, reply, &replyLength), dspMsgMixup);
        const auto lines = caseOwner.lines();
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[1], c.line);
        EXPECT_EQ(lines[2], dumpOf(L"Ctrl Out Raw:", {1, 0x1F, 0, 1, 0xEE}));
        EXPECT_EQ(lines[3], dumpOf(L"Ctrl In Raw:", c.reply));
        EXPECT_FALSE(link.sequenceInitNeeded());
        EXPECT_EQ(reply[0], 0);
    }
}

TEST_F(HandshakeTest, ReplyIsCopiedToTheRequestedLengthWhateverItsOwnLength) {
    auto link = linkInStepAt(0);
    dsp->pushStatus(dspResultReady, 2);
    dsp->setReply({1, 0x20, 0x00, 0x02, 10, 11, 12, 13, 14, 15});
    BYTE reply[8];
    std::fill(std::begin(reply), std::end(reply), 0xFF);
    int replyLength = 5;
    EXPECT_EQ(link->atomicGet(0x1F, nullptr, 0, 0x20, reply, &replyLength), dspOk);
    EXPECT_EQ(replyLength, 5);
    EXPECT_EQ(std::vector<BYTE>(reply, reply + 8),
              (std::vector<BYTE>{10, 11, 12, 13, 14, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(dsp->calls().back().inSize, 9u);
}

TEST_F(HandshakeTest, DspStuckOnAnOlderNumberTimesOutAfter5000ms) {
    auto link = linkInStepAt(10);
    dsp->setCallTime(clock, 1);
    dsp->pushStatus(dspAck, 10);
    const DWORD start = host::GetTickCount();
    EXPECT_EQ(link->atomicSend(1, nullptr, 0), dspUsbTimeout);
    EXPECT_EQ(host::GetTickCount() - start, 5001u);  // the send took 1 ms too
    EXPECT_EQ(dsp->countCalls(S), 2 + 5000);
    EXPECT_EQ(clock->totalSlept(), 0u);  // back-to-back polling
    EXPECT_EQ(owner.lines().back(),
              L"CommPolicy_USB::waitForStatusOrTimeout() -- getStatus() timeout! Last status = 7, "
              L"expect 8, get DSP Ack 1, expect SN 12 lastSN 10\n");
    EXPECT_EQ(owner.count(L"Never got to wait"), 0);
    EXPECT_TRUE(link->sequenceInitNeeded());
}

// A tick counter that jumps 5000 ms at every look.
class JumpingClock : public host::Clock {
  public:
    DWORD tickCount() override { return tick_ += 5000; }
    void sleep(DWORD) override {}
    std::chrono::system_clock::time_point wallTime() override {
        return std::chrono::system_clock::now();
    }
    bool waitFor(std::condition_variable&, std::unique_lock<std::mutex>&, DWORD,
                 const std::function<bool()>& ready) override {
        return ready();
    }

  private:
    DWORD tick_ = 0;
};

TEST_F(HandshakeTest, TimeOutBeforeAnyStatusReadSaysSo) {
    auto link = openLink();
    host::ScopedClock jumping(std::make_shared<JumpingClock>());
    EXPECT_EQ(link->waitForStatusOrTimeout(dspResultReady), dspUsbTimeout);
    EXPECT_EQ(dsp->countCalls(S), 0);
    EXPECT_EQ(owner.lines(),
              (std::vector<std::wstring>{
                  L"CommPolicy_USB::waitForStatusOrTimeout() -- getStatus() timeout! Last status "
                  L"= -1, expect 5, get DSP Ack 0, expect SN 3 lastSN 0\n",
                  L"ERROR: Never got to wait! initialTime = 5000, currentTime = 15000\n"}));
    EXPECT_TRUE(link->sequenceInitNeeded());
}

TEST_F(HandshakeTest, FailedStatusReadInAWaitPassesThroughAndLosesStep) {
    auto link = linkInStepAt(10);
    owner.removing = true;
    EXPECT_EQ(link->privateSendData(1, nullptr, 0), dspOk);
    dsp->failNext(1, ERROR_INVALID_HANDLE_STATE);
    EXPECT_EQ(link->waitForStatusOrTimeout(dspCommandDone), dspUsbCommFailed);
    EXPECT_TRUE(link->sequenceInitNeeded());
    EXPECT_EQ(link->sequenceNumber(), 12);
}

}  // namespace
