#include "platform/process_sample.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace host {

std::optional<ProcessSample> sampleProcess(int pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    std::ifstream status(dir + "/status");
    std::ifstream stat(dir + "/stat");
    if (!status || !stat) return std::nullopt;

    ProcessSample sample;
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) sample.residentKb = std::stoull(line.substr(6));
        if (line.rfind("RssAnon:", 0) == 0) sample.anonymousKb = std::stoull(line.substr(8));
        if (line.rfind("Threads:", 0) == 0) sample.threads = std::stoi(line.substr(8));
        // A process that has ended but is not reaped yet is no longer running.
        if (line.rfind("State:", 0) == 0 && line.find_first_of("ZX", 6) != std::string::npos)
            return std::nullopt;
    }
    // Fields after the command name, which may hold blanks and parentheses:
    // utime and stime are the 14th and 15th fields of the line.
    std::string all;
    std::getline(stat, all);
    const auto close = all.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream rest(all.substr(close + 2));
    std::string field;
    std::uint64_t ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i)
        if (i >= 14) ticks += std::stoull(field);
    const long perSecond = ::sysconf(_SC_CLK_TCK);
    sample.cpuMs = perSecond > 0 ? ticks * 1000 / static_cast<std::uint64_t>(perSecond) : 0;

    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(dir + "/fd", error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error))
        ++sample.openFiles;
    return sample;
}

}  // namespace host
