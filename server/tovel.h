#pragma once
// One client session: owns its connection in a worker thread, frames the
// remote requests, serves them through its board and sends the replies.
// The server controller creates sessions, polls them and drops them; a
// session object lives until both the controller and its thread are done
// with it, so a thread that had to be abandoned never touches freed memory.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/win_types.h"
#include "server/cof_download.h"

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

    int state() const { return state_.load(); }
    bool running() const { return running_.load(); }

    static constexpr DWORD kHungAfterMs = 300000;
    static constexpr int kRecvBufferSize = 10000;

  private:
    struct PrivateTag {};

  public:
    Tovel(PrivateTag, UsbCtlr* ctlr, host::SOCKET hSocket, SessionOwner* owner);

  private:
    void threadImplementation();
    void receiveLoop();
    void serveHead(int bufferIndex, int numBytes);
    void serveRequest(int bufferIndex, int numBytes);
    std::wstring describeSocketError(int error);
    void threadEnd();

    // Request handlers: each sets state and sMsgSz_, and serves the request
    // when it is complete.
    void waitForRest(const wchar_t* request, int needed, int bufferIndex, int numBytes);
    void primSend(int bufferIndex, int numBytes);
    void primGet(int bufferIndex, int numBytes);
    void getStatus(int bufferIndex, int numBytes);
    void atomicGet(int bufferIndex);
    void atomicSend(int bufferIndex, int numBytes);
    void control(int bufferIndex);
    void badCommand(int bufferIndex, int numBytes);
    // A long-form request's total length, or -1 while its size is not there.
    long long longFormLength(int bufferIndex) const;
    // Sends the reply record (8 + length bytes); answers what send answered.
    int sendReply(std::uint32_t status, std::uint32_t length, const std::uint8_t* data);
    void checkSend(int sent, int expected, const wchar_t* name);
    void sendError(const wchar_t* prefix);

    // Control sub-commands: each leaves its reply status in controlStatus_,
    // its data length in controlLength_ and its data in boardData_.
    std::uint32_t controlStatus_ = 0;
    std::uint32_t controlLength_ = 0;
    void runControl(int sub, const std::uint8_t* payload, std::uint32_t size);
    void enumBoards();
    void cofStart();
    void cofData(const std::uint8_t* payload, std::uint32_t size);
    void cofEnd();
    void dspBoot();
    void reboot();
    void version();
    void cmdLineControl();
    void unknownControl(int sub);
    // Ends an open download without replacing the image.
    void closeCofFile();

    // The reply record as it goes on the wire: status, length, data.
    static constexpr int kReplyDataMax = 8184;
    std::uint8_t reply_[8 + kReplyDataMax] = {};
    std::uint8_t recvBuffer_[kRecvBufferSize] = {};
    std::uint8_t boardData_[kRecvBufferSize] = {};
    std::atomic<bool> running_{true};
    int sMsgSz_ = 0;
    std::atomic<host::SOCKET> socket_{host::INVALID_SOCKET};
    const host::SOCKET hSocket_;
    UsbCtlr* const ctlr_;
    SessionOwner* const owner_;
    std::atomic<HANDLE> thread_{NULL_HANDLE};
    CofDownload cofDownload_;
    std::atomic<int> state_{0};
    DWORD lastTickle_ GUARDED_BY(tickleLock_) = 0;
    host::CriticalSection tickleLock_;

    // The request trace, when one is in force: this session's number, its
    // board's serial and the reply the last request got.
    struct Traced {
        unsigned session = 0;
        std::uint32_t serial = 0;
        bool replied = false;
        std::uint32_t status = 0, length = 0;
    } traced_;
    void traceServed(DWORD begun);
    std::string endReason() const;
};
