#pragma once
// What a running process uses, read from /proc: for soak runs that watch a
// unit for growth.
#include <cstdint>
#include <optional>

namespace host {

struct ProcessSample {
    std::uint64_t residentKb = 0;   // resident set size
    std::uint64_t anonymousKb = 0;  // the part not backed by files: heap, stacks
    int threads = 0;
    int openFiles = 0;        // open file descriptors
    std::uint64_t cpuMs = 0;  // user + system time so far
};

// nullopt when the process does not exist (any more) or cannot be read.
std::optional<ProcessSample> sampleProcess(int pid);

}  // namespace host
