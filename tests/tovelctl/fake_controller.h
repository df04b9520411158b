#pragma once
// A stand-in for the controller's remote command port: frames requests with
// the real framer and answers them with fixed replies, one connection at a
// time, so the client and tovelctl can be tested without boards.
//
// Replies: Rem_Control version 4/191213, boards 4/2, COF start/data/end 0,
// boot 15, reboot and command line 4, unknown sub-commands 4 with one byte 0;
// Rem_GetStatus 0 with device 1, state 4, sequence 37; Rem_AtomicSend 0;
// Rem_AtomicGet 0 with replyLength bytes 0, 1, 2, ...; Rem_PrimGet 0 with the
// size+4 bytes of a packet from device 1; Rem_PrimSend nothing.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/socket.h"

class FakeController {
  public:
    // Listens on `port` (0: any free one).
    explicit FakeController(std::uint16_t port = 0);
    ~FakeController();
    FakeController(const FakeController&) = delete;
    FakeController& operator=(const FakeController&) = delete;

    std::uint16_t port() const { return port_; }

    // Connections accepted so far.
    int connections() const { return connections_.load(); }
    // Every complete request received so far, in order.
    std::vector<std::vector<std::uint8_t>> requests() const;
    // The bytes of the COF download (COF start empties it).
    std::vector<std::uint8_t> cofFile() const;

    // Misbehaviour: close the connection instead of answering the n-th
    // request (counted from 1); answer with a length beyond any reply; or
    // never answer.
    void closeAtRequest(int n) { closeAt_ = n; }
    void answerBogusLength() { bogusLength_ = true; }
    void stayQuiet() { quiet_ = true; }

  private:
    void run();
    void serve(host::SOCKET client);
    std::vector<std::uint8_t> answer(const std::vector<std::uint8_t>& request, bool& reply);

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
    std::vector<std::uint8_t> cof_;
    std::thread thread_;
};
