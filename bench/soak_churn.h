#pragma once
// The soak's churn: boards pulled and plugged back, and DSP faults (failed
// transfers, a hang, a mixed-up reply, latency, a bad status), one action at
// a time through the unit's simulated-hardware control channel.
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/soak_stop.h"

namespace soak {

struct ChurnTally {
    std::atomic<std::uint64_t> actions{0};
    std::atomic<std::uint64_t> refused{0};  // commands the channel answered with an error
};

// `kinds` are the boards in slots 1, 2, ... as the unit started them.
void runChurn(const std::string& controlSocket, const std::vector<std::string>& kinds,
              const StopSignal& stop, ChurnTally& tally);

}  // namespace soak
