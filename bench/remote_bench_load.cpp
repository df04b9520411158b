#include "bench/remote_bench_load.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace remotebench {

namespace {

// Latencies need far finer steps than the host's millisecond tick count,
// so the client times itself with the standard steady clock.
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool receiveExactly(host::SOCKET s, std::uint8_t* out, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const int n =
            host::recv(s, reinterpret_cast<char*>(out) + got, static_cast<int>(size - got), 0);
        if (n <= 0) return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool sendAll(host::SOCKET s, std::span<const std::uint8_t> bytes) {
    return host::send(s, reinterpret_cast<const char*>(bytes.data()),
                      static_cast<int>(bytes.size()), 0) == static_cast<int>(bytes.size());
}

}  // namespace

double RoundTrips::percentileUs(double p) const {
    if (latenciesNs_.empty()) return 0;
    std::vector<std::int64_t> sorted = latenciesNs_;
    const auto rank = std::min(sorted.size() - 1, static_cast<std::size_t>(p * sorted.size()));
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(rank),
                     sorted.end());
    return static_cast<double>(sorted[rank]) / 1000.0;
}

bool runCalls(const std::function<bool()>& call, double seconds, RoundTrips& out) {
    const auto start = Clock::now();
    const auto until =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    bool ok = true;
    for (auto before = start; before < until;) {
        if (!call()) {
            ok = false;
            break;
        }
        const auto after = Clock::now();
        out.add(std::chrono::duration_cast<std::chrono::nanoseconds>(after - before).count());
        before = after;
    }
    out.addTime(secondsSince(start));
    return ok;
}

bool runRoundTrips(host::SOCKET s, std::span<const std::uint8_t> request,
                   std::span<const std::uint8_t> expectedReply, std::size_t checkedBytes,
                   double seconds, RoundTrips& out) {
    std::vector<std::uint8_t> reply(expectedReply.size());
    checkedBytes = std::min(checkedBytes, expectedReply.size());
    return runCalls(
        [&] {
            return sendAll(s, request) && receiveExactly(s, reply.data(), reply.size()) &&
                   std::memcmp(reply.data(), expectedReply.data(), checkedBytes) == 0;
        },
        seconds, out);
}

StreamResult runStream(host::SOCKET s, std::span<const std::uint8_t> batch,
                       std::span<const std::uint8_t> ackHeader, std::size_t ackBytes,
                       std::size_t window, double seconds) {
    StreamResult result;
    std::vector<std::uint8_t> ack(ackBytes);
    const std::size_t checked = std::min(ackHeader.size(), ackBytes);
    const auto start = Clock::now();
    const auto until =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::size_t inFlight = 0;
    auto takeAck = [&] {
        if (!receiveExactly(s, ack.data(), ack.size()) ||
            std::memcmp(ack.data(), ackHeader.data(), checked) != 0)
            return false;
        --inFlight;
        ++result.batches;
        return true;
    };
    while (Clock::now() < until) {
        while (inFlight < window) {
            if (!sendAll(s, batch)) {
                result.ok = false;
                break;
            }
            ++inFlight;
        }
        if (!result.ok || !takeAck()) {
            result.ok = false;
            break;
        }
    }
    while (result.ok && inFlight > 0)
        if (!takeAck()) result.ok = false;
    result.seconds = secondsSince(start);
    return result;
}

}  // namespace remotebench
