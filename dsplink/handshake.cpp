// The status/sequence handshake: frame a command, send it, poll the DSP's
// status block until it confirms the command under the awaited sequence
// number, then read the reply.
#include <algorithm>
#include <cstring>
#include <limits>

#include "boards/error_log.h"
#include "dsplink/comm_policy_usb.h"
#include "platform/clock.h"
#include "platform/text.h"

using namespace dsplink;

namespace {

constexpr DWORD kStatusWaitMs = 5000;
constexpr BYTE kSequenceStep = 2;

// The states a DSP may show while a command is under way.
bool isHandshakeStatus(int s) {
    return s == dspInReset || s == dspRunning || s == dspResultReady || s == dspAck ||
           s == dspCommandDone || s == dspBadCommand;
}

// Frame size for a payload length, kept out of the driver's range when the
// length itself is out of range so that the send refuses it.
int frameSizeFor(int length) {
    if (length < 0) return length;
    if (length > std::numeric_limits<int>::max() - wire::kFrameHeader)
        return std::numeric_limits<int>::max();
    return length + wire::kFrameHeader;
}

}  // namespace

dspStatus CommPolicy_USB::atomicSend(BYTE opcode, const BYTE* data, int length) {
    host::LockGuard guard(*this);
    if (needSeqInit) initSeqNum();
    dspStatus r = privateSendData(opcode, data, length);
    if (r == dspOk) r = waitForStatusOrTimeout(dspCommandDone);
    return r;
}

dspStatus CommPolicy_USB::atomicGet(BYTE opcode, const BYTE* data, int length, BYTE replyOpcode,
                                    BYTE* reply, int* replyLength) {
    host::LockGuard guard(*this);
    if (needSeqInit) initSeqNum();
    dspStatus r = privateSendData(opcode, data, length);
    if (r == dspOk) r = waitForStatusOrTimeout(dspResultReady);
    if (r == dspOk) r = privateGetData(replyOpcode, reply, replyLength);
    return r;
}

dspStatus CommPolicy_USB::privateSendData(BYTE opcode, const BYTE* data, int length) {
    std::fill(txBuf.begin(), txBuf.end(), BYTE{0});
    // An out-of-range length is not copied; the send refuses the frame size.
    const bool fits = length >= 0 && length <= wire::kMaxPayload;
    if (data && fits && length > 0) std::memcpy(&txBuf[wire::kFrameHeader], data, length);
    wire::putFrameHeader(txBuf, wire::kDeviceDsp, opcode, static_cast<std::uint16_t>(length));
    return primitiveSendData(txBuf.data(), frameSizeFor(length));
}

dspStatus CommPolicy_USB::waitForStatusOrTimeout(BYTE expected) {
    int last = -1;  // no status seen yet
    BYTE block[wire::kStatusBlockSize] = {};
    const DWORD t0 = host::GetTickCount();
    bool snRetryInHand = true;
    bool ackSeen = false;
    dspSN = static_cast<BYTE>(dspSN + kSequenceStep);

    while (host::GetTickCount() - t0 < kStatusWaitMs) {
        DWORD size = wire::kStatusBlockSize;
        const dspStatus r = primitiveGetStatus(block, &size);
        if (r != dspOk) {
            needSeqInit = true;
            return r;
        }
        const int s = block[wire::kStatusOffset];
        last = s;
        if (!isHandshakeStatus(s)) {
            logToOwner(host::wformat(
                L"CommPolicy_USB::waitForStatusOrTimeout() --  found invalid dspStatus=%d!", s));
            needSeqInit = true;
            return static_cast<dspStatus>(s);
        }
        if (s == dspAck) ackSeen = true;
        if (block[wire::kSequenceOffset] != dspSN) continue;  // still an earlier command's status
        if (s == expected) return dspOk;
        if (s == dspBadCommand) return dspBadCommand;
        // The DSP may show the new number a moment before its final state.
        if (snRetryInHand) {
            snRetryInHand = false;
            continue;
        }
        logToOwner(
            host::wformat(L"CommPolicy_USB::waitForStatusOrTimeout() -- found unexpected "
                          L"dspStatus=%d! dspSN=%u Last control send:",
                          s, static_cast<unsigned>(dspSN)));
        dumpCtrlOut();
        dumpCtrlIn();
        needSeqInit = true;
        return dspMsgMixup;
    }

    logToOwner(
        host::wformat(L"CommPolicy_USB::waitForStatusOrTimeout() -- getStatus() timeout! "
                      L"Last status = %d, expect %d, get DSP Ack %d, expect SN %d lastSN "
                      L"%d\n",
                      last, static_cast<int>(expected), ackSeen ? 1 : 0, static_cast<int>(dspSN),
                      static_cast<int>(block[wire::kSequenceOffset])));
    if (last == -1) {
        logToOwner(host::wformat(L"ERROR: Never got to wait! initialTime = %u, currentTime = %u\n",
                                 static_cast<unsigned>(t0),
                                 static_cast<unsigned>(host::GetTickCount())));
    }
    needSeqInit = true;
    return dspUsbTimeout;
}

void CommPolicy_USB::initSeqNum() {
    BYTE block[wire::kStatusBlockSize] = {};
    DWORD size = wire::kStatusBlockSize;
    // The first read flushes a block the driver may still hold from before.
    primitiveGetStatus(block, &size);
    size = wire::kStatusBlockSize;
    if (primitiveGetStatus(block, &size) != dspOk) return;

    const int s = block[wire::kStatusOffset];
    if (s == dspInReset) {
        // Reported, but a DSP in reset still carries a usable count.
        logToOwner(
            host::wformat(L"CommPolicy_USB::initSeqNum() --  found invalid dspStatus=%d!", s));
    } else if (!isHandshakeStatus(s)) {
        logToOwner(
            host::wformat(L"CommPolicy_USB::initSeqNum() --  found invalid dspStatus=%d!", s));
        return;
    }
    dspSN = block[wire::kSequenceOffset];
    logToOwner(host::wformat(L"CommPolicy_USB::initSeqNum() initNoBoot forces dspSN to %d\n",
                             static_cast<int>(dspSN)));
    needSeqInit = false;
}

dspStatus CommPolicy_USB::privateGetData(BYTE replyOpcode, BYTE* reply, int* replyLength) {
    const int wanted = replyLength ? *replyLength : 0;
    int n = frameSizeFor(wanted);
    std::fill(rxBuf.begin(), rxBuf.end(), BYTE{0});
    const dspStatus r = primitiveGetData(rxBuf.data(), &n);
    if (r != dspOk) return r;

    if (rxBuf[1] == replyOpcode && rxBuf[0] == wire::kDeviceDsp) {
        // The reply's own length bytes are not consulted: the caller asked for
        // exactly `wanted` bytes, and the read above vouched for 0..kMaxPayload.
        if (reply && wanted > 0) std::memcpy(reply, &rxBuf[wire::kFrameHeader], wanted);
        return dspOk;
    }
    logToOwner(
        host::wformat(L"CommPolicy_USB::privateGetData message mixup! Expected Opcode=%u "
                      L"device=%u got device=%u Opcode=%u  sizeHi=%x sizeLo=%x",
                      static_cast<unsigned>(replyOpcode), 1u, static_cast<unsigned>(rxBuf[0]),
                      static_cast<unsigned>(rxBuf[1]), static_cast<unsigned>(rxBuf[2]),
                      static_cast<unsigned>(rxBuf[3])));
    dumpCtrlOut();
    dumpCtrlIn();
    return dspMsgMixup;
}

void CommPolicy_USB::dumpCtrlIn() {
    dumpCopy(L"Ctrl In Raw:", ctrlIn);
}
void CommPolicy_USB::dumpCtrlOut() {
    dumpCopy(L"Ctrl Out Raw:", ctrlOut);
}

void CommPolicy_USB::dumpCopy(const wchar_t* title, const std::vector<BYTE>& copy) {
    std::wstring text = title;
    for (int i = 1; i <= kCtrlCopyBytes; ++i) {
        text += host::wformat(L"%02x", static_cast<unsigned>(copy[i]));
        if (i % 4 == 0) text += L' ';
    }
    logToOwner(text);
}
