#include "server/session_core.h"

#include <algorithm>
#include <cstring>

#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/socket.h"
#include "server/request_trace.h"

using remproto::FrameResult;
using remproto::FrameStatus;
using remproto::RemRequest;

namespace {

// The pause after an unknown opcode, before the session receives again.
constexpr DWORD kBadCommandPauseMs = 2000;
constexpr int kTraceMax = 0x7FFFFFFF;

int traced(std::uint64_t n) {
    return static_cast<int>(std::min<std::uint64_t>(n, kTraceMax));
}

}  // namespace

SessionCore::SessionCore(SessionBoard& board, SessionOwner* owner, ReplySink& sink, Pause pause)
    : board_(board), owner_(owner), sink_(sink), pause_(pause) {}

// Only the first framing after a receive waits for more than 4 bytes; the
// bytes left behind a served request are framed as they are.
void SessionCore::received(std::size_t numBytes) {
    buffer_.commit(numBytes);
    numBytes_ = numBytes;
    if (!remproto::framingStarts(buffer_.size())) return;
    while (running()) {
        const FrameResult frame = buffer_.frame();
        const bool whole = frame.status == FrameStatus::Request;
        if (whole)
            serveTraced(frame.request);
        else
            notServed(frame);
        if (whole && frame.total == buffer_.size()) return buffer_.clear();
        state_ = SessionState::BytesLeft;
        if (!whole) return;
        buffer_.consume(frame.total);
    }
}

void SessionCore::serveTraced(const RemRequest& request) {
    const DWORD begun = requestTrace() ? host::GetTickCount() : 0;
    traced_.replied = false;
    serve(request);
    if (RequestTrace* trace = requestTrace())
        trace->served({traced_.session, traced_.serial, buffer_.held().data(),
                       static_cast<std::uint32_t>(request.total), traced_.replied, traced_.status,
                       traced_.length, begun, host::GetTickCount() - begun});
}

void SessionCore::serve(const RemRequest& request) {
    switch (request.opcode) {
        case Rem_PrimSend:
            return primSend(request);
        case Rem_PrimGet:
            return primGet(request);
        case Rem_GetStatus:
            return getStatus();
        case Rem_AtomicGet:
            return atomicGet(request);
        case Rem_AtomicSend:
            return atomicSend(request);
        case Rem_Control:
            return control(request);
    }
}

// The head of the buffer is no whole request: it waits for more bytes (a
// request longer than the buffer waits until the buffer is full), or it is
// no request at all.
void SessionCore::notServed(const FrameResult& frame) {
    switch (frame.opcode) {
        case Rem_PrimSend:
            state_ = SessionState::PrimSend;
            return fragment(L"Prim_Send", buffer_.storedPrimSendLength());
        case Rem_PrimGet:
            state_ = SessionState::PrimGetReceived;
            return fragment(L"Prim_Get", frame.total);
        case Rem_GetStatus:
            state_ = SessionState::GetStatusReceived;
            return fragment(L"GetStatus", frame.total);
        case Rem_AtomicGet:
            state_ = SessionState::AtomicGetReceived;
            return;
        case Rem_AtomicSend:
            state_ = SessionState::AtomicSendReceived;
            state_ = SessionState::LongFormIncomplete;
            // Until its size field is there, a long form needs at least its header.
            return fragment(L"AtomicSend",
                            std::max<std::uint64_t>(frame.total, remproto::kLongHeaderSize));
        case Rem_Control:
            state_ = SessionState::LongFormIncomplete;
            return;
        default:
            return badCommand(frame.opcode);
    }
}

void SessionCore::fragment(const wchar_t* request, std::uint64_t needed) {
    host::NKDbgPrintfW(L"\nMsg Fragment(%s): needed %d have %d (numbytes=%d) wait for more...\n",
                       request, traced(needed), traced(buffer_.size()), traced(numBytes_));
}

void SessionCore::badCommand(std::uint8_t opcode) {
    state_ = SessionState::BadCommand;
    host::NKDbgPrintfW(L"\n\nBad command! buffer[0]=%d bufferIndex=%d sMsgSz=%d numBytes=%d\n",
                       opcode, traced(buffer_.size()), 0, traced(numBytes_));
    pause_(kBadCommandPauseMs);
}

void SessionCore::primSend(const RemRequest& request) {
    state_ = SessionState::PrimSend;
    board_.primitiveSendData(request.packet.data(), static_cast<int>(request.packet.size()));
}

void SessionCore::primGet(const RemRequest& request) {
    state_ = SessionState::PrimGetReceived;
    state_ = SessionState::PrimGetReading;
    int length = static_cast<int>(request.primGetLength());
    const dspStatus status = board_.primitiveGetData(boardData_, &length);
    // A length the link refuses (above 8184) has no place in the reply
    // record: the refusal is answered with no data.
    const std::uint32_t replyLength =
        length >= 0 && static_cast<std::size_t>(length) <= remproto::kReplyDataMax
            ? static_cast<std::uint32_t>(length)
            : 0;
    state_ = SessionState::PrimGetReplying;
    if (sendReply(static_cast<std::uint32_t>(status), replyLength) == host::SOCKET_ERROR)
        sink_.sendFailed(L"Socket Error in Rem_PrimGet/Send: ");
}

void SessionCore::getStatus() {
    state_ = SessionState::GetStatusReceived;
    state_ = SessionState::GetStatusReading;
    DWORD size = wire::kStatusBlockSize;
    // Data byte 0 stays undefined; the status block follows it.
    const dspStatus status = board_.primitiveGetStatus(boardData_ + 1, &size);
    state_ = SessionState::GetStatusReplying;
    constexpr auto length = static_cast<std::uint32_t>(remproto::kStatusReplyLength);
    checkSend(sendReply(static_cast<std::uint32_t>(status), length),
              static_cast<int>(remproto::kReplyHeaderSize + length), L"Rem_GetStatus");
}

void SessionCore::atomicGet(const RemRequest& request) {
    state_ = SessionState::AtomicGetReceived;
    state_ = SessionState::AtomicGetExchanging;
    // The command always reaches the board; a reply length the link refuses
    // (above 8180) is refused at the reply read, with status 12, and cannot
    // fit the reply record, so that refusal is answered with no data.
    int wanted = static_cast<int>(std::min<std::uint32_t>(request.replyLength, kTraceMax));
    const dspStatus status =
        board_.atomicGet(request.command, request.payload.data(), static_cast<int>(request.size),
                         request.replyOpcode, boardData_, &wanted);
    const std::uint32_t length =
        request.replyLength <= remproto::kDspPayloadMax ? request.replyLength : 0;
    state_ = SessionState::AtomicGetReplying;
    checkSend(sendReply(static_cast<std::uint32_t>(status), length),
              static_cast<int>(remproto::kReplyHeaderSize + length), L"Rem_AtomicGet");
}

void SessionCore::atomicSend(const RemRequest& request) {
    state_ = SessionState::AtomicSendReceived;
    state_ = SessionState::AtomicSendExchanging;
    // An error raised by the board call is dropped and the request still
    // answered; its status is then the link's transfer failure.
    std::uint32_t status = dspUsbCommFailed;
    try {
        status = static_cast<std::uint32_t>(board_.atomicSend(
            request.command, request.payload.data(), static_cast<int>(request.size)));
    } catch (...) {
    }
    state_ = SessionState::AtomicSendReplying;
    checkSend(sendReply(status, 0), static_cast<int>(remproto::kReplyHeaderSize),
              L"Rem_AtomicSend");
}

void SessionCore::control(const RemRequest& request) {
    runControl(request.command, request.payload);
    state_ = SessionState::ControlReplying;
    if (sendReply(controlStatus_, controlLength_) == host::SOCKET_ERROR) {
        sink_.sendFailed(L"Socket Error in Rem_Control/Send: ");
        state_ = SessionState::SocketError;
    }
}

// The reply data is the first `length` bytes of boardData_.
int SessionCore::sendReply(std::uint32_t status, std::uint32_t length) {
    reply_.status = status;
    reply_.length = length;
    traced_.replied = true;
    traced_.status = status;
    traced_.length = length;
    std::memcpy(reply_.data.data(), boardData_, length);
    return sink_.sendReply(remproto::replyBytes(reply_));
}

void SessionCore::checkSend(int sent, int expected, const wchar_t* name) {
    if (sent >= 1 && sent < expected) {
        host::NKDbgPrintfW(L"%s: sent only %d of %d bytes!\n", name, sent, expected);
    } else if (sent == host::SOCKET_ERROR) {
        sink_.sendFailed((L"Socket Error in " + std::wstring(name) + L"/Send: ").c_str());
    } else if (sent < 0) {
        host::NKDbgPrintfW(L"%s: socket->send answers %d!\n", name, sent);
    }
}
