#pragma once
// What the remote benchmark runs against: a throw-away unit with one
// simulated T1 board served by the real server controller, and a bare TCP
// request/reply server of one thread as the baseline.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/win_types.h"
#include "sim/dsp_bus.h"

class UsbCtlr;

namespace remotebench {

// A unit laid out in a fresh temporary root (default DSP images, registry,
// log folder); the root is removed again on destruction. The debug output
// is counted instead of printed, so the figures are not those of a terminal.
class BenchUnit {
  public:
    BenchUnit();
    ~BenchUnit();
    BenchUnit(const BenchUnit&) = delete;
    BenchUnit& operator=(const BenchUnit&) = delete;

    // Debug output lines written so far, and those that report a request
    // split over two receives.
    std::uint64_t debugLines() const { return counts_->lines.load(); }
    std::uint64_t fragmentLines() const { return counts_->fragments.load(); }

  private:
    struct Counts {
        std::atomic<std::uint64_t> lines{0};
        std::atomic<std::uint64_t> fragments{0};
    };
    std::string root_;
    std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

// One T1 board with no transfer latency behind the real server controller
// (server thread only), its remote port mapped to a free host port. One
// client at a time: the controller listens again once a client has left.
class TovelServer {
  public:
    TovelServer();
    ~TovelServer();
    TovelServer(const TovelServer&) = delete;
    TovelServer& operator=(const TovelServer&) = delete;

    // A new client connection (retried while the controller has no listener
    // open), or INVALID_SOCKET after a few seconds.
    host::SOCKET connect() const;
    sim::SimDspBoard& board() { return *board_; }
    // The board controller that the session serves (null before a session exists).
    UsbCtlr* ctlr() const;

  private:
    std::shared_ptr<sim::SimDspBus> bus_;
    std::shared_ptr<sim::SimDspBoard> board_;
    std::uint16_t port_ = 0;
};

// The baseline: one thread that takes one client, receives as the session
// does (into a 10000-byte buffer) and answers `reply` after every
// `requestBytes` bytes received, until the client closes. Its connection
// has TCP_NODELAY set.
class RawServer {
  public:
    RawServer(std::size_t requestBytes, std::vector<std::uint8_t> reply);
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    host::SOCKET connect() const;

  private:
    DWORD serve();
    const std::size_t requestBytes_;
    const std::vector<std::uint8_t> reply_;
    host::SOCKET listener_ = host::INVALID_SOCKET;
    // The served client, closed by whoever lets go of it first: the thread
    // when the client leaves, the destructor when the client never does.
    std::atomic<host::SOCKET> client_{host::INVALID_SOCKET};
    HANDLE thread_ = NULL_HANDLE;
};

// A loopback client connection with TCP_NODELAY and a 10-s receive
// timeout, or INVALID_SOCKET.
host::SOCKET connectLoopback(std::uint16_t port);

}  // namespace remotebench
