#pragma once
// The soak's clients: well-behaved test software that checks every reply,
// and hostile connections now and then.
#include <atomic>
#include <cstdint>

#include "bench/soak_log.h"
#include "bench/soak_stop.h"

namespace soak {

struct Tally {
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> wrongReplies{0};  // a reply that is not the right one
    std::atomic<std::uint64_t> errorReplies{0};  // 11-15: board pulled, failed, hung, mixed up
    std::atomic<std::uint64_t> dropped{0};       // connection failed or timed out mid-request
    std::atomic<std::uint64_t> refused{0};       // no board free, try again
    std::atomic<std::uint64_t> hostile{0};       // hostile connections that got in
};

// One well-behaved client: sessions of a few hundred mixed requests (echo
// commands of random sizes, status, version, board counts, numbered log
// lines), reconnecting after a session and after an error reply.
void runClient(int index, std::uint16_t port, const StopSignal& stop, Tally& tally,
               NumberedLines& numbered);

// Every few seconds one hostile connection: random bytes, a cut header, a
// huge size, a slow trickle, random raw DSP packets, connect/close bursts,
// requests that are never read.
void runHostile(std::uint16_t port, const StopSignal& stop, Tally& tally);

}  // namespace soak
