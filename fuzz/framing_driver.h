#pragma once
// Drives a session's serving core over a byte stream the way the session
// does: the stream arrives in receives of given sizes, framing starts after a
// receive only above 4 bytes, and every complete request is served through a
// fake board and answered into a fake sink. Beside it runs a plain framing of
// the same receives; the driver checks the framer's promises on the way, that
// the core serves exactly the requests framed there, in order and with their
// bytes, and that every reply is well formed. The fuzz target's harness; the
// replay tests (tests/server_protocol) run it on their streams and the corpus.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "server/remote_protocol.h"
#include "server/session_core.h"
#include "server/session_owner.h"

namespace framing_test {

using Span = std::span<const std::uint8_t>;

struct Served {
    std::uint8_t opcode = 0;
    std::size_t total = 0;
    std::uint8_t command = 0;
    std::vector<std::uint8_t> payload;
    std::vector<std::uint8_t> packet;
};

struct Outcome {
    std::vector<Served> served;
    remproto::FrameStatus last = remproto::FrameStatus::NeedMore;  // why framing stopped
    std::size_t received = 0;
    std::string violation;  // empty when every promise held
};

// A board exchange of this command raises an error (an atomic send swallows it).
inline constexpr std::uint8_t kThrowingCommand = 0xEE;

// What the core must do for one request the plain framing served: the board
// call it must make (with these bytes) and the reply it must send.
struct Expected {
    remproto::RemRequest request;  // spans into the stream
    bool replies = true;
    std::uint32_t replyLength = 0;
};

inline Expected expect(const remproto::RemRequest& q, Span stream, std::size_t at) {
    using namespace remproto;
    Expected e{q};
    // Re-point the spans at the stream, which outlives the receive buffer.
    if (!q.payload.empty())
        e.request.payload = stream.subspan(
            at + (q.opcode == Rem_PrimSend ? kShortHeaderSize : kLongHeaderSize), q.size);
    if (!q.packet.empty()) e.request.packet = stream.subspan(at + 1, q.packet.size());
    switch (q.opcode) {
        case Rem_PrimSend:
            e.replies = false;
            break;
        case Rem_PrimGet:
            e.replyLength = q.primGetLength() <= kReplyDataMax ? q.primGetLength() : 0;
            break;
        case Rem_GetStatus:
            e.replyLength = kStatusReplyLength;
            break;
        case Rem_AtomicGet:
            e.replyLength = q.replyLength <= kDspPayloadMax ? q.replyLength : 0;
            break;
        case Rem_AtomicSend:
            break;
        case Rem_Control:
            e.replyLength = q.command == RemCtl_Version ? 4
                            : q.command == RemCtl_EnumBoards || q.command > RemCtl_CmdLineControl
                                ? 1
                                : 0;
            break;
    }
    return e;
}

// The fake board and sink: each call is checked against the next expected request.
class Checker final : public SessionBoard, public ReplySink, public SessionOwner {
  public:
    std::vector<Expected> expected;
    std::size_t next = 0;
    std::string violation;

    dspStatus primitiveSendData(const BYTE* packet, int size) override {
        const Expected* e = take(Rem_PrimSend);
        if (e && !same(e->request.packet, packet, size)) fail("Rem_PrimSend packet differs");
        return dspOk;
    }
    dspStatus primitiveGetData(BYTE*, int* size) override {
        // The data is whatever the buffer holds: only its length is checked.
        current(Rem_PrimGet);
        return *size > static_cast<int>(remproto::kDspPacketMax) ? dspUsbCommFailed : dspOk;
    }
    dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) override {
        if (current(Rem_GetStatus)) std::fill_n(buffer, *size, BYTE{1});
        return dspRunning;
    }
    dspStatus atomicSend(std::uint32_t opcode, const BYTE* data, int length) override {
        const Expected* e = current(Rem_AtomicSend);
        if (e && (opcode != e->request.command || !same(e->request.payload, data, length)))
            fail("Rem_AtomicSend reached the board changed");
        if (opcode == kThrowingCommand) throw std::runtime_error("board gone");
        return dspOk;
    }
    dspStatus atomicGet(std::uint32_t opcode, const BYTE* data, int length, BYTE replyOpcode,
                        BYTE* reply, int* replyLength) override {
        const Expected* e = current(Rem_AtomicGet);
        if (e && (opcode != e->request.command || replyOpcode != e->request.replyOpcode ||
                  !same(e->request.payload, data, length)))
            fail("Rem_AtomicGet reached the board changed");
        if (*replyLength > static_cast<int>(remproto::kDspPayloadMax)) return dspUsbCommFailed;
        std::copy_n(data, std::min(length, *replyLength), reply);
        return dspOk;
    }
    dspStatus status() override { return dspRunning; }
    dspStatus boot() override { return dspOk; }
    // No download can open here: the fuzzer writes no files.
    std::wstring cofFileName() override { return L"missing\\fuzz.cof"; }
    int enumerateBoards() override { return 1; }
    void requestRestart() override {}
    host::CriticalSection& tovelLock() override { return lock_; }

    int sendReply(Span reply) override {
        const Expected* e = current(std::nullopt);
        if (reply.size() < remproto::kReplyHeaderSize) {
            fail("reply shorter than its header");
            return -1;
        }
        const auto header = remproto::decodeReplyHeader(reply.first<remproto::kReplyHeaderSize>());
        if (reply.size() != remproto::kReplyHeaderSize + header.length)
            fail("reply length field differs from the bytes sent");
        if (e && (!e->replies || header.length != e->replyLength))
            fail("unexpected reply length for opcode " + std::to_string(e->request.opcode));
        if (e && e->request.opcode == Rem_AtomicGet && header.status == dspOk) {
            const auto echoed = e->request.payload.first(
                std::min<std::size_t>(e->request.payload.size(), header.length));
            if (!std::equal(echoed.begin(), echoed.end(), reply.begin() + 8)) fail("echo differs");
        }
        ++next;
        return static_cast<int>(reply.size());
    }
    void sendFailed(const wchar_t*) override { fail("send failed"); }

    // A request without a reply is done once its board call is made.
    const Expected* take(std::uint8_t opcode) {
        const Expected* e = current(opcode);
        if (e) ++next;
        return e;
    }
    void fail(const std::string& what) {
        if (violation.empty()) violation = what;
    }

  private:
    const Expected* current(std::optional<std::uint8_t> opcode) {
        if (next >= expected.size()) {
            fail("the core served a request the framing did not");
            return nullptr;
        }
        const Expected* e = &expected[next];
        if (opcode && e->request.opcode != *opcode) fail("the core served another request");
        return e;
    }
    static bool same(Span want, const BYTE* got, int size) {
        return size >= 0 && want.size() == static_cast<std::size_t>(size) &&
               std::equal(want.begin(), want.end(), got);
    }
    host::CriticalSection lock_;
};

// No real pauses, no debug output and no files while the core is driven:
// whoever drives it holds one of these.
class QuietHost {
  public:
    QuietHost() : clock_(std::make_shared<host::ManualClock>()), previousRoot_(host::unitRoot()) {
        host::setUnitRoot("/dev/null/no-unit");
    }
    ~QuietHost() { host::setUnitRoot(previousRoot_); }
    QuietHost(const QuietHost&) = delete;
    QuietHost& operator=(const QuietHost&) = delete;

  private:
    host::ScopedClock clock_;
    host::DebugSilence silence_;
    std::string previousRoot_;
};

// The receive sizes cycle for the first `sizedReceives` receives; after
// those the rest arrives as fast as the buffer takes it.
inline Outcome drive(Span stream, std::span<const std::size_t> receiveSizes, bool keepServed = true,
                     std::size_t sizedReceives = SIZE_MAX) {
    using remproto::FrameStatus;
    // On the stack: a fuzz run must not pay for fresh heap pages each time.
    remproto::ReceiveBuffer reference;
    Checker checker;
    // The pause after an unknown opcode is the core's own business.
    SessionCore session(checker, &checker, checker, [](DWORD) {});
    Outcome out;
    std::size_t consumed = 0;
    std::size_t next = 0;
    auto fail = [&](const std::string& what) {
        if (out.violation.empty()) out.violation = what;
    };
    while (out.received < stream.size() && session.running()) {
        std::size_t want = receiveSizes.empty() || next >= sizedReceives
                               ? stream.size()
                               : receiveSizes[next++ % receiveSizes.size()];
        if (want == 0) want = 1;
        auto space = reference.freeSpace();
        if (space.size() != session.freeSpace().size()) fail("the core holds other bytes");
        if (space.empty()) break;  // a session's receive would ask for 0 bytes here
        const std::size_t n = std::min({want, space.size(), stream.size() - out.received});
        const Span piece = stream.subspan(out.received, n);
        std::copy(piece.begin(), piece.end(), space.begin());
        std::copy(piece.begin(), piece.end(), session.freeSpace().begin());
        reference.commit(n);
        out.received += n;
        if (remproto::framingStarts(reference.size())) {
            for (;;) {
                const auto held = reference.held();
                const remproto::FrameResult f = reference.frame();
                out.last = f.status;
                if (f.status != FrameStatus::Request) {
                    if (f.status == FrameStatus::NeedMore && f.total <= held.size())
                        fail("NeedMore although the needed bytes are held");
                    if (f.status == FrameStatus::TooLong && f.total <= remproto::kReceiveBufferSize)
                        fail("TooLong for a request that fits");
                    break;
                }
                const auto& q = f.request;
                if (q.total != f.total || q.total > held.size() || q.total < 5)
                    fail("request length outside the held bytes");
                auto inside = [&](Span s) {
                    return s.empty() || (s.data() >= held.data() &&
                                         s.data() + s.size() <= held.data() + q.total);
                };
                if (!inside(q.payload) || !inside(q.packet)) fail("span outside the request");
                if (!std::equal(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(q.total),
                                stream.begin() + static_cast<std::ptrdiff_t>(consumed)))
                    fail("request bytes differ from the stream");
                if (keepServed)
                    out.served.push_back({q.opcode,
                                          q.total,
                                          q.command,
                                          {q.payload.begin(), q.payload.end()},
                                          {q.packet.begin(), q.packet.end()}});
                checker.expected.push_back(expect(q, stream, consumed));
                reference.consume(q.total);
                consumed += q.total;
                if (reference.empty()) break;
            }
        }
        session.received(n);
        if (checker.next != checker.expected.size())
            fail("the core served " + std::to_string(checker.next) + " requests, the framing " +
                 std::to_string(checker.expected.size()));
        if (out.last == FrameStatus::UnknownOpcode || out.last == FrameStatus::TooLong) break;
    }
    if (consumed + reference.size() != out.received) fail("bytes lost or invented");
    if (out.violation.empty() && !checker.violation.empty()) out.violation = checker.violation;
    return out;
}

// One input of the fuzz target (fuzz/framer_fuzz.cpp): the first byte picks
// how many receive sizes follow (two bytes each, big-endian); the rest is the
// stream. They cut its first 256 receives: enough for any state the core can
// reach, while a run stays short.
inline Outcome driveFuzzInput(Span data, bool keepServed = true) {
    if (data.empty()) return {};
    std::size_t splitCount = data[0] % 32;
    std::size_t at = 1;
    std::vector<std::size_t> splits;
    for (; splitCount > 0 && at + 1 < data.size(); --splitCount, at += 2)
        splits.push_back(1 + ((std::size_t{data[at]} << 8 | data[at + 1]) % 12000));
    return drive(data.subspan(at), splits, keepServed, 256);
}

}  // namespace framing_test
