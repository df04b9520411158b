#pragma once
// The machine's processor time as the kernel counts it: all cores together,
// in the kernel's clock ticks. Two readings a moment apart give the share of
// that moment the machine was busy.
#include <cstdint>
#include <optional>
#include <string_view>

namespace host {

struct CpuTimes {
    std::uint64_t busy = 0;   // every state but idle and waiting for I/O
    std::uint64_t total = 0;  // every state
};

// The "cpu" line of /proc/stat ("cpu  user nice system idle iowait irq
// softirq steal ..."); nullopt if the line is not one.
std::optional<CpuTimes> parseCpuTimes(std::string_view statLine);

// The counters now; nullopt if the kernel's statistics cannot be read.
std::optional<CpuTimes> readCpuTimes();

// Processor time (user and system, all its threads, ended ones included) a
// running process has used, in seconds; nullopt if it cannot be read.
std::optional<double> processCpuSeconds(int pid);

}  // namespace host
