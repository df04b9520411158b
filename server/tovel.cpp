#include "server/tovel.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <latch>
#include <memory>

#include "app/message_channels.h"
#include "boards/error_log.h"
#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/handles.h"
#include "platform/process.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "server/remote_protocol.h"
#include "server/request_trace.h"
#include "server/session_owner.h"

namespace {

constexpr int kLongHeader = static_cast<int>(remproto::kLongHeaderSize);
// The largest DSP payload the link accepts.
constexpr std::uint32_t kMaxPayload = static_cast<std::uint32_t>(remproto::kDspPayloadMax);

std::uint32_t le32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void putLe32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
    p[2] = static_cast<std::uint8_t>(v >> 16);
    p[3] = static_cast<std::uint8_t>(v >> 24);
}

}  // namespace

std::shared_ptr<Tovel> Tovel::create(UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner) {
    auto session = std::make_shared<Tovel>(PrivateTag{}, ctlr, hSocket, owner);
    // The thread shares ownership, so an abandoned thread never outlives its session.
    std::shared_ptr<Tovel> self = session;
    // The thread starts serving once its handle is published: a session that
    // ends at once must find the handle to close, or it would look alive for ever.
    auto published = std::make_shared<std::latch>(1);
    HANDLE thread = host::CreateThread(
        [self, published]() -> DWORD {
            published->wait();
            self->threadImplementation();
            return 0;
        },
        host::THREAD_PRIORITY_NORMAL, "tovel-session");
    if (thread == NULL_HANDLE) {
        statusMessage(L"Tovel Constructor: Unable to spawn thread!");
        session->running_ = false;
    } else {
        session->thread_ = thread;
    }
    published->count_down();
    return session;
}

Tovel::Tovel(PrivateTag, UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner)
    : hSocket_(hSocket), ctlr_(ctlr), owner_(owner) {
    UsbCtlr::PinSession(ctlr_);
    // Counted from construction, so a poll before the thread's first pass
    // never sees a session as hung.
    lastTickle_ = host::GetTickCount();
}

Tovel::~Tovel() {
    host::SOCKET s = socket_.exchange(host::INVALID_SOCKET);
    if (s != host::INVALID_SOCKET) host::closesocket(s);
    // A handle that never reached the thread is closed here.
    else if (hSocket_ != host::INVALID_SOCKET && thread_.load() == NULL_HANDLE && !running_)
        host::closesocket(hSocket_);
    closeCofFile();
    UsbCtlr::UnpinSession(ctlr_);
}

void Tovel::stop() {
    running_ = false;
    host::SOCKET s = socket_.load();
    if (s != host::INVALID_SOCKET) host::closesocket(s);
}

bool Tovel::isDoneOrHung() {
    if (thread_.load() == NULL_HANDLE && !running_) return true;
    const DWORD now = host::GetTickCount();
    DWORD last;
    {
        host::LockGuard lock(tickleLock_);
        last = lastTickle_;
    }
    if (now - last <= kHungAfterMs) return false;
    traceAndLog(host::wformat(L"Tovel hung in state %d, closing socket...curTime=%u lastTickle=%u",
                              state(), now, last));
    stop();
    traceAndLog(L"Wait for a bit for thread to die on it's own...");
    host::Sleep(2000);
    if (HANDLE h = thread_.exchange(NULL_HANDLE); h != NULL_HANDLE) {
        traceAndLog(host::wformat(L"Tovel hung in state %d, terminating thread.", state()));
        host::TerminateThread(h, static_cast<DWORD>(-1));
        host::CloseHandle(h);
    }
    traceAndLog(host::wformat(L"Tovel hung in state %d, thread termintated.", state()));
    return true;
}

void Tovel::threadImplementation() {
    host::WSAStartup(host::MAKEWORD(2, 2), nullptr);
    socket_ = hSocket_;
    if (RequestTrace* trace = requestTrace()) {
        traced_ = {nextTracedSession(), ctlr_ ? ctlr_->getSerialNumber() : 0};
        trace->sessionStarted(traced_.session, traced_.serial);
    }
    try {
        receiveLoop();
    } catch (...) {
        running_ = false;
        statusMessage(L"Unhandled Exception in Tovel::threadImplementation!");
    }
    threadEnd();
}

void Tovel::threadEnd() {
    debugMessage(host::wformat(L"Tovel thread 0x%x exiting\n",
                               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(this))));
    // The download is over with the session; release the file for others.
    closeCofFile();
    if (RequestTrace* trace = requestTrace())
        trace->sessionEnded(traced_.session, traced_.serial, endReason());
    // A session that ends itself (full buffer, lost framing, unexpected error)
    // must not leave its client waiting until the next purge: the client sees
    // the end at once, and the handle is still released by the destructor.
    if (host::SOCKET s = socket_.load(); s != host::INVALID_SOCKET)
        host::shutdown(s, host::SD_BOTH);
    if (HANDLE h = thread_.exchange(NULL_HANDLE); h != NULL_HANDLE) host::CloseHandle(h);
}

void Tovel::receiveLoop() {
    int bufferIndex = 0;
    while (running_) {
        {
            host::LockGuard lock(tickleLock_);
            lastTickle_ = host::GetTickCount();
        }
        state_ = 3;
        if (bufferIndex >= kRecvBufferSize) {
            // The head request can never complete in a full buffer; asking the
            // socket for zero bytes would spin, so the session ends instead.
            statusMessage(
                L"Tovel: receive buffer full without a complete request; closing connection.\n");
            running_ = false;
            break;
        }
        const int numBytes =
            host::recv(socket_.load(), reinterpret_cast<char*>(recvBuffer_) + bufferIndex,
                       kRecvBufferSize - bufferIndex, 0);
        if (numBytes == 0) {
            debugMessage(L"Socket Closed gracefully by remote host.\n");
            state_ = 1;
            running_ = false;
            break;
        }
        if (numBytes < 0) {
            const int code = host::WSAGetLastError();
            statusMessage(L"Socket Error in Receive: " + describeSocketError(code) + L"\n");
            running_ = false;
            state_ = 4;
            break;
        }
        bufferIndex += numBytes;
        if (bufferIndex > kRecvBufferSize) {
            traceAndLog(L"Tovel:threadImplementation() Buffer overflow!!!!!!!");
            traceAndLog(L"Exiting in 5 Seconds....");
            host::Sleep(5000);
            host::ExitProcess(-1);
        }
        sMsgSz_ = bufferIndex;
        while (running_ && sMsgSz_ > 4) {
            serveHead(bufferIndex, numBytes);
            // Consume what was served.
            if (bufferIndex == sMsgSz_) {
                bufferIndex = 0;
                sMsgSz_ = 0;
            } else {
                state_ = 28;
                if (sMsgSz_ > 0 && bufferIndex > sMsgSz_)
                    std::memmove(recvBuffer_, recvBuffer_ + sMsgSz_,
                                 static_cast<std::size_t>(bufferIndex - sMsgSz_));
                if (bufferIndex - sMsgSz_ < 0) {
                    host::NKDbgPrintfW(
                        L"\n\nBufferIndex hosed! buffer[0]=%d bufferIndex=%d sMsgSz=%d "
                        L"numBytes=%d\n",
                        recvBuffer_[0], bufferIndex, sMsgSz_, numBytes);
                    // The framing never gets here; if it ever does, the buffer
                    // cannot be trusted, so the session ends.
                    running_ = false;
                    bufferIndex = 0;
                    break;
                }
                bufferIndex -= sMsgSz_;
            }
        }
    }
}

void Tovel::serveHead(int bufferIndex, int numBytes) {
    const DWORD begun = requestTrace() ? host::GetTickCount() : 0;
    traced_.replied = false;
    serveRequest(bufferIndex, numBytes);
    if (sMsgSz_ > 0 && requestTrace()) traceServed(begun);  // a whole request was served
}

void Tovel::traceServed(DWORD begun) {
    requestTrace()->served({traced_.session, traced_.serial, recvBuffer_,
                            static_cast<std::uint32_t>(sMsgSz_), traced_.replied, traced_.status,
                            traced_.length, begun, host::GetTickCount() - begun});
}

// Why the session ended, from the state it ended in.
std::string Tovel::endReason() const {
    switch (state_.load()) {
        case 1:
            return "closed by the client";
        case 4:
            return "socket error";
        default:
            return running_ ? "thread ended"
                            : "stopped (state " + std::to_string(state_.load()) + ")";
    }
}

void Tovel::serveRequest(int bufferIndex, int numBytes) {
    switch (recvBuffer_[0]) {
        case Rem_PrimSend:
            return primSend(bufferIndex, numBytes);
        case Rem_PrimGet:
            return primGet(bufferIndex, numBytes);
        case Rem_GetStatus:
            return getStatus(bufferIndex, numBytes);
        case Rem_AtomicGet:
            return atomicGet(bufferIndex);
        case Rem_AtomicSend:
            return atomicSend(bufferIndex, numBytes);
        case Rem_Control:
            return control(bufferIndex);
        default:
            return badCommand(bufferIndex, numBytes);
    }
}

// A request not yet whole: say so and leave it for the next receive.
void Tovel::waitForRest(const wchar_t* request, int needed, int bufferIndex, int numBytes) {
    host::NKDbgPrintfW(L"\nMsg Fragment(%s): needed %d have %d (numbytes=%d) wait for more...\n",
                       request, needed, bufferIndex, numBytes);
    sMsgSz_ = 0;
}

void Tovel::primSend(int bufferIndex, int numBytes) {
    state_ = 5;
    sMsgSz_ = 5 + (recvBuffer_[3] * 256 + recvBuffer_[4]);
    if (bufferIndex < sMsgSz_) {
        return waitForRest(L"Prim_Send", sMsgSz_, bufferIndex, numBytes);
    }
    ctlr_->link->primitiveSendData(recvBuffer_ + 1, sMsgSz_ - 1);
}

void Tovel::primGet(int bufferIndex, int numBytes) {
    state_ = 6;
    sMsgSz_ = 5;
    if (bufferIndex < 5) {
        return waitForRest(L"Prim_Get", 5, bufferIndex, numBytes);
    }
    state_ = 7;
    int length = (recvBuffer_[3] * 256 + recvBuffer_[4]) + 4;
    const dspStatus status = ctlr_->link->primitiveGetData(boardData_, &length);
    // A length the link refuses (above 8184) has no place in the reply
    // record: the refusal is answered with no data.
    const std::uint32_t replyLength =
        length <= kReplyDataMax ? static_cast<std::uint32_t>(length) : 0;
    state_ = 8;
    if (sendReply(static_cast<std::uint32_t>(status), replyLength, boardData_) ==
        host::SOCKET_ERROR)
        sendError(L"Socket Error in Rem_PrimGet/Send: ");
}

void Tovel::getStatus(int bufferIndex, int numBytes) {
    sMsgSz_ = 5;
    state_ = 9;
    if (bufferIndex < 5) {
        return waitForRest(L"GetStatus", 5, bufferIndex, numBytes);
    }
    state_ = 10;
    DWORD size = 64;
    const dspStatus status = ctlr_->link->primitiveGetStatus(boardData_ + 1, &size);
    state_ = 11;
    checkSend(sendReply(static_cast<std::uint32_t>(status), 65, boardData_), 8 + 65,
              L"Rem_GetStatus");
}

long long Tovel::longFormLength(int bufferIndex) const {
    if (bufferIndex < 8) return -1;
    return kLongHeader + static_cast<long long>(le32(recvBuffer_ + 4));
}

void Tovel::atomicGet(int bufferIndex) {
    state_ = 12;
    const long long total = longFormLength(bufferIndex);
    if (total < 0 || bufferIndex < total) {
        sMsgSz_ = 0;
        return;
    }
    sMsgSz_ = static_cast<int>(total);
    state_ = 13;
    const std::uint32_t size = le32(recvBuffer_ + 4);
    const std::uint32_t replyLength = le32(recvBuffer_ + 12);
    // The command always reaches the board; a reply length the link refuses
    // (above 8180) is refused at the reply read, with status 12, and cannot
    // fit the reply record, so that refusal is answered with no data.
    int wanted = static_cast<int>(std::min<std::uint32_t>(replyLength, 0x7FFFFFFF));
    const dspStatus status =
        ctlr_->atomicGet(recvBuffer_[1], recvBuffer_ + kLongHeader, static_cast<int>(size),
                         recvBuffer_[8], boardData_, &wanted);
    const std::uint32_t sentLength = replyLength <= kMaxPayload ? replyLength : 0;
    state_ = 14;
    checkSend(sendReply(static_cast<std::uint32_t>(status), sentLength, boardData_),
              8 + static_cast<int>(sentLength), L"Rem_AtomicGet");
}

void Tovel::atomicSend(int bufferIndex, int numBytes) {
    state_ = 15;
    const long long total = longFormLength(bufferIndex);
    if (total < 0 || bufferIndex < total) {
        state_ = 29;
        return waitForRest(
            L"AtomicSend",
            total < 0 ? kLongHeader : static_cast<int>(std::min<long long>(total, 0x7FFFFFFF)),
            bufferIndex, numBytes);
    }
    sMsgSz_ = static_cast<int>(total);
    state_ = 16;
    // An error raised by the board call is dropped and the request still
    // answered; its status is then the link's transfer failure.
    std::uint32_t status = dspUsbCommFailed;
    try {
        status = static_cast<std::uint32_t>(ctlr_->atomicSend(
            recvBuffer_[1], recvBuffer_ + kLongHeader, static_cast<int>(le32(recvBuffer_ + 4))));
    } catch (...) {
    }
    state_ = 17;
    checkSend(sendReply(status, 0, nullptr), 8, L"Rem_AtomicSend");
}

void Tovel::control(int bufferIndex) {
    const long long total = longFormLength(bufferIndex);
    if (total < 0 || bufferIndex < total) {
        state_ = 29;
        sMsgSz_ = 0;
        return;
    }
    sMsgSz_ = static_cast<int>(total);
    runControl(recvBuffer_[1], recvBuffer_ + kLongHeader, le32(recvBuffer_ + 4));
    state_ = 2;
    if (sendReply(controlStatus_, controlLength_, boardData_) == host::SOCKET_ERROR) {
        sendError(L"Socket Error in Rem_Control/Send: ");
        state_ = 4;
    }
}

void Tovel::badCommand(int bufferIndex, int numBytes) {
    state_ = 27;
    sMsgSz_ = 0;
    host::NKDbgPrintfW(L"\n\nBad command! buffer[0]=%d bufferIndex=%d sMsgSz=%d numBytes=%d\n",
                       recvBuffer_[0], bufferIndex, 0, numBytes);
    host::Sleep(2000);
}

int Tovel::sendReply(std::uint32_t status, std::uint32_t length, const std::uint8_t* data) {
    putLe32(reply_, status);
    putLe32(reply_ + 4, length);
    traced_.replied = true;
    traced_.status = status;
    traced_.length = length;
    if (length) std::memcpy(reply_ + 8, data, length);
    return host::send(socket_.load(), reinterpret_cast<const char*>(reply_),
                      static_cast<int>(8 + length), 0);
}

void Tovel::checkSend(int sent, int expected, const wchar_t* name) {
    if (sent >= 1 && sent < expected) {
        host::NKDbgPrintfW(L"%s: sent only %d of %d bytes!\n", name, sent, expected);
    } else if (sent == host::SOCKET_ERROR) {
        sendError((L"Socket Error in " + std::wstring(name) + L"/Send: ").c_str());
    } else if (sent < 0) {
        host::NKDbgPrintfW(L"%s: socket->send answers %d!\n", name, sent);
    }
}

void Tovel::sendError(const wchar_t* prefix) {
    const int code = host::WSAGetLastError();
    statusMessage(prefix + describeSocketError(code) + L"\n");
}

std::wstring Tovel::describeSocketError(int error) {
    if (error != static_cast<int>(WSAEWOULDBLOCK)) running_ = false;
    switch (error) {
        case 10022:
            return L"WSAEINVAL ";
        case 10035:
            return L"WSAEWOULDBLOCK ";
        case 10036:
            return L"WSAEINPROGRESS ";
        case 10038:
            return L"WSAENOTSOCK ";
        case 10040:
            return L"WSAEMSGSIZE ";
        case 10045:
            return L"WSAEOPNOTSUPP ";
        case 10050:
            return L"WSAENETDOWN ";
        case 10053:
            return L"WSAECONNABORTED ";
        case 10054:
            return L"WSAECONNRESET ";
        case 10057:
            return L"WSAENOTCONN ";
        case 10058:
            return L"WSAESHUTDOWN ";
        case 10060:
            return L"WSAETIMEDOUT ";
        case 10065:
            return L"WSAEHOSTUNREACH ";
        case 10093:
            return L"WSANOTINITIALISED";
        case 10101:
            return L"WSAEDISCON ";
        default:
            return host::wformat(L"Unkown Error %u!", static_cast<unsigned>(error));
    }
}
