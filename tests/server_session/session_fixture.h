#pragma once
// A session bound to a registered simulated board, driven by a client over a
// real loopback connection.
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "server/remote_protocol.h"
#include "server/session_owner.h"
#include "server/tovel.h"
#include "tests/boards/board_fixture.h"

namespace sessiontest {

using Bytes = std::vector<std::uint8_t>;
using namespace remproto;

class FakeOwner : public SessionOwner {
  public:
    void requestRestart() override { ++restarts; }
    host::CriticalSection& tovelLock() override { return lock; }
    std::atomic<int> restarts{0};
    host::CriticalSection lock;
};

class SessionTest : public boardtest::BoardTest {
  protected:
    SessionTest();
    ~SessionTest() override;

    // Registers the given board kinds and opens a session on the first board.
    void startSession(std::initializer_list<sim::BoardKind> kinds = {sim::BoardKind::T1});

    void send(const Bytes& bytes);
    // Reads exactly n bytes (fails the test after a few seconds of real time).
    Bytes receive(std::size_t n);
    // True when nothing arrives within `ms` of real time.
    bool quietFor(DWORD ms);
    // Waits (real time) until the session's thread has ended.
    bool waitUntilDone();
    // The client goes away (a no-op when it already has).
    void closeClient();
    // Closes the client, stops the session and waits until nothing holds it.
    void endSession();

    static Bytes control(std::uint8_t sub, const Bytes& payload = {}) {
        return remproto::encodeControl(sub, payload);
    }

    FakeOwner owner;
    std::shared_ptr<Tovel> session;
    UsbCtlr* ctlr = nullptr;
    std::vector<std::shared_ptr<sim::SimDspBoard>> boards;
    host::SOCKET client = host::INVALID_SOCKET;
};

}  // namespace sessiontest
