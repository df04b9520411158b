#pragma once
// The client side of the remote benchmark: request/reply round trips timed
// one by one, and a pipelined stream of request batches. The same loops
// drive the server under test and the baseline, so their figures compare.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "platform/socket.h"

namespace remotebench {

// Round-trip latencies gathered over one or more timed runs.
class RoundTrips {
  public:
    std::size_t count() const { return latenciesNs_.size(); }
    double seconds() const { return seconds_; }
    double perSecond() const { return seconds_ > 0 ? static_cast<double>(count()) / seconds_ : 0; }
    // The latency below which the fraction `p` (0..1) of the round trips
    // stayed, in microseconds.
    double percentileUs(double p) const;

    void add(std::int64_t latencyNs) { latenciesNs_.push_back(latencyNs); }
    void addTime(double seconds) { seconds_ += seconds; }

  private:
    std::vector<std::int64_t> latenciesNs_;
    double seconds_ = 0;
};

// Calls `call` again and again for `seconds`, timing each call; false (with
// what was gathered) as soon as a call answers false.
bool runCalls(const std::function<bool()>& call, double seconds, RoundTrips& out);

// Sends `request` and reads one reply of expectedReply.size() bytes, again
// and again for `seconds`; every reply must equal `expectedReply` in its
// first `checkedBytes` bytes. False (with what was gathered) on a failed
// send, receive or check.
bool runRoundTrips(host::SOCKET s, std::span<const std::uint8_t> request,
                   std::span<const std::uint8_t> expectedReply, std::size_t checkedBytes,
                   double seconds, RoundTrips& out);

struct StreamResult {
    bool ok = true;
    std::uint64_t batches = 0;  // batches sent and acknowledged
    double seconds = 0;
};

// Sends `batch` back to back, keeping up to `window` batches unacknowledged;
// each batch is acknowledged by one reply of ackBytes bytes whose first 8
// bytes must equal `ackHeader`. Runs for `seconds`, then drains.
StreamResult runStream(host::SOCKET s, std::span<const std::uint8_t> batch,
                       std::span<const std::uint8_t> ackHeader, std::size_t ackBytes,
                       std::size_t window, double seconds);

}  // namespace remotebench
