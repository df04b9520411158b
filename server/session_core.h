#pragma once
// The serving core of one client session: the receive buffer, the framing of
// what arrives into requests, serving each request through the session's
// board and building its reply. No sockets, no threads: the session (Tovel)
// receives into freeSpace(), hands the count to received(), and the replies
// go to its ReplySink. The fuzz target drives this same core in process.
#include <atomic>
#include <cstdint>
#include <span>

#include "platform/clock.h"
#include "server/cof_download.h"
#include "server/remote_protocol.h"
#include "server/session_board.h"
#include "server/session_state.h"

class SessionOwner;

// Where a session's replies go.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    // Sends one whole reply; answers what the socket's send answered.
    virtual int sendReply(std::span<const std::uint8_t> reply) = 0;
    // A send answered the socket error: report it after `prefix` (and end
    // the session unless the error is a passing one).
    virtual void sendFailed(const wchar_t* prefix) = 0;
};

class SessionCore {
  public:
    // How the session pauses after an unknown opcode (the host's sleep; a
    // fuzzer passes one that returns at once).
    using Pause = void (*)(DWORD ms);

    SessionCore(SessionBoard& board, SessionOwner* owner, ReplySink& sink,
                Pause pause = host::Sleep);
    SessionCore(const SessionCore&) = delete;
    SessionCore& operator=(const SessionCore&) = delete;

    // Where the next receive may write; empty once the buffer is full.
    std::span<std::uint8_t> freeSpace() { return buffer_.freeSpace(); }
    // Takes the `numBytes` just received into freeSpace(), then frames and
    // serves the requests that are whole, while the session runs.
    void received(std::size_t numBytes);
    // Serves one complete request and sends its reply (Rem_PrimSend has none).
    void serve(const remproto::RemRequest& request);

    SessionState state() const { return state_.load(); }
    void setState(SessionState state) { state_ = state; }
    bool running() const { return running_.load(); }
    void end() { running_ = false; }

    // Served requests go to the request trace in force under these numbers.
    void traceAs(unsigned session, std::uint32_t serial) { traced_ = {session, serial}; }
    // Ends an open download without replacing the image.
    void closeCofFile() { cofDownload_.abandon(); }

  private:
    void serveTraced(const remproto::RemRequest& request);
    void notServed(const remproto::FrameResult& frame);
    void fragment(const wchar_t* request, std::uint64_t needed);
    void badCommand(std::uint8_t opcode);

    void primSend(const remproto::RemRequest& request);
    void primGet(const remproto::RemRequest& request);
    void getStatus();
    void atomicGet(const remproto::RemRequest& request);
    void atomicSend(const remproto::RemRequest& request);
    void control(const remproto::RemRequest& request);

    // Sends the reply record (8 + length bytes); answers what the send answered.
    int sendReply(std::uint32_t status, std::uint32_t length);
    void checkSend(int sent, int expected, const wchar_t* name);

    // Control sub-commands: each leaves its reply status in controlStatus_,
    // its data length in controlLength_ and its data in boardData_.
    void runControl(int sub, std::span<const std::uint8_t> payload);
    void enumBoards();
    void cofStart();
    void cofData(std::span<const std::uint8_t> payload);
    void cofEnd();
    void dspBoot();
    void reboot();
    void version();
    void cmdLineControl();
    void unknownControl(int sub);

    SessionBoard& board_;
    SessionOwner* const owner_;
    ReplySink& sink_;
    const Pause pause_;
    std::atomic<bool> running_{true};
    std::atomic<SessionState> state_{SessionState::Constructed};
    remproto::ReceiveBuffer buffer_;
    std::size_t numBytes_ = 0;  // of the latest receive, as the traces name it
    RemReply reply_;
    std::uint8_t boardData_[remproto::kReceiveBufferSize] = {};
    std::uint32_t controlStatus_ = 0;
    std::uint32_t controlLength_ = 0;
    CofDownload cofDownload_;

    // The request trace's numbers for this session and the reply the last
    // request got.
    struct Traced {
        unsigned session = 0;
        std::uint32_t serial = 0;
        bool replied = false;
        std::uint32_t status = 0, length = 0;
    } traced_;
};
