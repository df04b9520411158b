#include "platform/cpu_times.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

namespace host {

std::optional<CpuTimes> parseCpuTimes(std::string_view line) {
    constexpr std::string_view kPrefix = "cpu ";
    if (line.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
    line.remove_prefix(kPrefix.size());
    // user nice system idle iowait irq softirq steal; older kernels give fewer.
    // guest and guest_nice are already counted in user and nice.
    constexpr int kIdle = 3, kIoWait = 4, kCounted = 8;
    CpuTimes times;
    int field = 0;
    while (field < kCounted) {
        while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
        if (line.empty()) break;
        std::uint64_t value = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), value);
        if (error != std::errc()) return std::nullopt;
        line.remove_prefix(static_cast<std::size_t>(end - line.data()));
        times.total += value;
        if (field != kIdle && field != kIoWait) times.busy += value;
        ++field;
    }
    if (field <= kIdle) return std::nullopt;  // not even the idle time
    return times;
}

std::optional<CpuTimes> readCpuTimes() {
    std::ifstream stat("/proc/stat");
    std::string line;
    if (!stat || !std::getline(stat, line)) return std::nullopt;
    return parseCpuTimes(line);
}

}  // namespace host

namespace host {

std::optional<double> processCpuSeconds(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!stat || !std::getline(stat, text)) return std::nullopt;
    // The program name may hold blanks; the fields after it do not.
    const auto close = text.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    std::uint64_t utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    if (!fields) return std::nullopt;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace host
