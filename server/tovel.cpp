#include "server/tovel.h"

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
#include "server/request_trace.h"
#include "server/session_owner.h"

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
        session->core_.end();
    } else {
        session->thread_ = thread;
    }
    published->count_down();
    return session;
}

Tovel::Tovel(PrivateTag, UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner)
    : hSocket_(hSocket), ctlr_(ctlr), board_(ctlr), core_(board_, owner, sink_) {
    UsbCtlr::PinSession(ctlr_);
    // Counted from construction, so a poll before the thread's first pass
    // never sees a session as hung.
    lastTickle_ = host::GetTickCount();
}

Tovel::~Tovel() {
    host::SOCKET s = socket_.exchange(host::INVALID_SOCKET);
    if (s != host::INVALID_SOCKET) host::closesocket(s);
    // A handle that never reached the thread is closed here.
    else if (hSocket_ != host::INVALID_SOCKET && thread_.load() == NULL_HANDLE && !running())
        host::closesocket(hSocket_);
    core_.closeCofFile();
    UsbCtlr::UnpinSession(ctlr_);
}

void Tovel::stop() {
    core_.end();
    host::SOCKET s = socket_.load();
    if (s != host::INVALID_SOCKET) host::closesocket(s);
}

bool Tovel::isDoneOrHung() {
    if (thread_.load() == NULL_HANDLE && !running()) return true;
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
        tracedSession_ = nextTracedSession();
        tracedSerial_ = ctlr_ ? ctlr_->getSerialNumber() : 0;
        core_.traceAs(tracedSession_, tracedSerial_);
        trace->sessionStarted(tracedSession_, tracedSerial_);
    }
    try {
        receiveLoop();
    } catch (...) {
        core_.end();
        statusMessage(L"Unhandled Exception in Tovel::threadImplementation!");
    }
    threadEnd();
}

void Tovel::threadEnd() {
    debugMessage(host::wformat(L"Tovel thread 0x%x exiting\n",
                               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(this))));
    // The download is over with the session; release the file for others.
    core_.closeCofFile();
    if (RequestTrace* trace = requestTrace())
        trace->sessionEnded(tracedSession_, tracedSerial_, endReason());
    // A session that ends itself (full buffer, lost framing, unexpected error)
    // must not leave its client waiting until the next purge: the client sees
    // the end at once, and the handle is still released by the destructor.
    if (host::SOCKET s = socket_.load(); s != host::INVALID_SOCKET)
        host::shutdown(s, host::SD_BOTH);
    if (HANDLE h = thread_.exchange(NULL_HANDLE); h != NULL_HANDLE) host::CloseHandle(h);
}

// Receive, then frame and serve what is whole, until the session ends.
void Tovel::receiveLoop() {
    while (running()) {
        {
            host::LockGuard lock(tickleLock_);
            lastTickle_ = host::GetTickCount();
        }
        core_.setState(SessionState::Receiving);
        const std::span<std::uint8_t> space = core_.freeSpace();
        if (space.empty()) {
            // The head request can never complete in a full buffer; asking the
            // socket for zero bytes would spin, so the session ends instead.
            statusMessage(
                L"Tovel: receive buffer full without a complete request; closing connection.\n");
            core_.end();
            break;
        }
        const int numBytes = host::recv(socket_.load(), reinterpret_cast<char*>(space.data()),
                                        static_cast<int>(space.size()), 0);
        if (numBytes == 0) {
            debugMessage(L"Socket Closed gracefully by remote host.\n");
            core_.setState(SessionState::ClosedByClient);
            core_.end();
            break;
        }
        if (numBytes < 0) {
            const int code = host::WSAGetLastError();
            statusMessage(L"Socket Error in Receive: " + describeSocketError(code) + L"\n");
            core_.end();
            core_.setState(SessionState::SocketError);
            break;
        }
        if (static_cast<std::size_t>(numBytes) > space.size()) {
            traceAndLog(L"Tovel:threadImplementation() Buffer overflow!!!!!!!");
            traceAndLog(L"Exiting in 5 Seconds....");
            host::Sleep(5000);
            host::ExitProcess(-1);
        }
        core_.received(static_cast<std::size_t>(numBytes));
    }
}

// Why the session ended, from the state it ended in.
std::string Tovel::endReason() const {
    switch (core_.state()) {
        case SessionState::ClosedByClient:
            return "closed by the client";
        case SessionState::SocketError:
            return "socket error";
        default:
            return running() ? "thread ended" : "stopped (state " + std::to_string(state()) + ")";
    }
}

int Tovel::SocketSink::sendReply(std::span<const std::uint8_t> reply) {
    return host::send(session_.socket_.load(), reinterpret_cast<const char*>(reply.data()),
                      static_cast<int>(reply.size()), 0);
}

void Tovel::SocketSink::sendFailed(const wchar_t* prefix) {
    const int code = host::WSAGetLastError();
    statusMessage(prefix + session_.describeSocketError(code) + L"\n");
}

std::wstring Tovel::describeSocketError(int error) {
    if (error != static_cast<int>(WSAEWOULDBLOCK)) core_.end();
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
