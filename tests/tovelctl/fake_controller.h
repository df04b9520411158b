#pragma once
// A stand-in for the controller's remote command port: the session's own
// serving core behind a loopback listener, one connection at a time, with a
// fixed board, so the client and tovelctl can be tested without a unit.
//
// The board: 2 boards enumerated; Rem_GetStatus answers 0 with device 1,
// state 4, sequence 37; Rem_AtomicGet answers 0 with replyLength bytes 0, 1,
// 2, ...; Rem_PrimGet 0 with a packet from device 1; a boot fails (15). COF
// downloads go to a unit root of the fake's own.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/debug_out.h"
#include "platform/socket.h"
#include "server/session_board.h"
#include "server/session_owner.h"
#include "tests/support/test_support.h"

class FakeController : private SessionBoard, private SessionOwner {
  public:
    // Listens on `port` (0: any free one).
    explicit FakeController(std::uint16_t port = 0);
    ~FakeController() override;
    FakeController(const FakeController&) = delete;
    FakeController& operator=(const FakeController&) = delete;

    std::uint16_t port() const { return port_; }

    // Connections accepted so far.
    int connections() const { return connections_.load(); }
    // Every complete request received so far, in order.
    std::vector<std::vector<std::uint8_t>> requests() const;
    // The image the last completed COF download stored.
    std::vector<std::uint8_t> cofFile() const;

    // Misbehaviour: close the connection instead of answering the n-th
    // request (counted from 1); answer with a length beyond any reply; or
    // never answer.
    void closeAtRequest(int n) { closeAt_ = n; }
    void answerBogusLength() { bogusLength_ = true; }
    void stayQuiet() { quiet_ = true; }

  private:
    class Sink;
    void run();
    void serve(host::SOCKET client);

    dspStatus primitiveSendData(const BYTE*, int) override { return dspOk; }
    dspStatus primitiveGetData(BYTE* buffer, int* size) override;
    dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) override;
    dspStatus atomicSend(std::uint32_t, const BYTE*, int) override { return dspOk; }
    dspStatus atomicGet(std::uint32_t opcode, const BYTE* data, int length, BYTE replyOpcode,
                        BYTE* reply, int* replyLength) override;
    dspStatus status() override { return dspRunning; }
    dspStatus boot() override { return dspWrongCofVersion; }
    std::wstring cofFileName() override { return L"fake.cof"; }
    int enumerateBoards() override { return 2; }
    void requestRestart() override {}
    host::CriticalSection& tovelLock() override { return lock_; }

    testing_support::TempUnitRoot root_;
    host::DebugSilence silence_;  // the core's reports are not what these tests are about
    host::CriticalSection lock_;
    host::SOCKET listener_ = host::INVALID_SOCKET;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<host::SOCKET> client_{host::INVALID_SOCKET};
    std::atomic<int> closeAt_{0};
    std::atomic<int> connections_{0};
    std::atomic<bool> bogusLength_{false};
    std::atomic<bool> quiet_{false};
    mutable std::mutex mutex_;
    std::vector<std::vector<std::uint8_t>> requests_;
    std::thread thread_;
};
