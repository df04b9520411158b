#pragma once
// One client session: owns its connection in a worker thread, receives the
// client's bytes and hands them to its serving core (session_core.h), which
// frames them, serves the requests through the board and sends the replies
// back here.
// The server controller creates sessions, polls them and drops them; a
// session object lives until both the controller and its thread are done
// with it, so a thread that had to be abandoned never touches freed memory.
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/win_types.h"
#include "server/session_board.h"
#include "server/session_core.h"

class UsbCtlr;
class SessionOwner;

class Tovel : public std::enable_shared_from_this<Tovel> {
  public:
    // Constructs the session and starts its thread.
    static std::shared_ptr<Tovel> create(UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner);
    virtual ~Tovel();
    Tovel(const Tovel&) = delete;
    Tovel& operator=(const Tovel&) = delete;

    // True once the session has ended; ends a session idle for more than
    // 300000 ms first (closing its socket, then abandoning its thread).
    bool isDoneOrHung();
    // Ends the session: clears `running` and closes the socket.
    void stop();
    bool usesCtlr(const UsbCtlr* c) const { return c == ctlr_; }

    int state() const { return static_cast<int>(core_.state()); }
    bool running() const { return core_.running(); }

    static constexpr DWORD kHungAfterMs = 300000;
    static constexpr int kRecvBufferSize = static_cast<int>(remproto::kReceiveBufferSize);

  private:
    struct PrivateTag {};

  public:
    Tovel(PrivateTag, UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner);

  private:
    void threadImplementation();
    void receiveLoop();
    std::wstring describeSocketError(int error);
    void threadEnd();
    std::string endReason() const;

    // The replies go out on the connection.
    class SocketSink final : public ReplySink {
      public:
        explicit SocketSink(Tovel& session) : session_(session) {}
        int sendReply(std::span<const std::uint8_t> reply) override;
        void sendFailed(const wchar_t* prefix) override;

      private:
        Tovel& session_;
    };

    std::atomic<host::SOCKET> socket_{host::INVALID_SOCKET};
    const host::SOCKET hSocket_;
    UsbCtlr* const ctlr_;
    std::atomic<HANDLE> thread_{NULL_HANDLE};
    DWORD lastTickle_ GUARDED_BY(tickleLock_) = 0;
    host::CriticalSection tickleLock_;
    UsbCtlrBoard board_;
    SocketSink sink_{*this};
    SessionCore core_;
    // This session's number and board serial in the request trace.
    unsigned tracedSession_ = 0;
    std::uint32_t tracedSerial_ = 0;
};
