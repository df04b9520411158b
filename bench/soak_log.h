#pragma once
// Numbered log lines: each soak client provokes event-log lines that carry a
// number of its own (an unknown control sub-command, which the unit logs
// before it replies), and the checker finds them in usb.log / usb.log.old,
// whole and in order, while the log rotates underneath.
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

// Sub-commands 8..255 are unknown to the unit; each client has its own run
// of them and goes through it in a circle.
inline constexpr int kNumberedClients = 4;
inline constexpr int kNumbersPerClient = 62;
inline constexpr int kFirstNumber = 8;

inline std::uint8_t numberFor(int client, std::uint64_t index) {
    return static_cast<std::uint8_t>(kFirstNumber + client * kNumbersPerClient +
                                     static_cast<int>(index % kNumbersPerClient));
}

// The next numbered line of each client; a line counts as written once its
// reply has come back.
struct NumberedLines {
    std::array<std::atomic<std::uint64_t>, kNumberedClients> confirmed{};
};

struct LogVerdict {
    std::uint64_t checked = 0;    // written lines seen in the log files
    std::uint64_t lost = 0;       // written lines missing, out of order or torn
    std::uint64_t unchecked = 0;  // rotated away before a check could see them
    int checks = 0;
};

class LogChecker {
  public:
    // `logFolder` is the host folder that holds usb.log and usb.log.old.
    LogChecker(std::string logFolder, const NumberedLines& lines);
    // One look at both files; call it often enough that no line is rotated
    // away twice between two calls.
    void check();
    LogVerdict verdict() const;

  private:
    bool readBothFiles(std::vector<std::wstring>& lines) const;
    std::string folder_;
    const NumberedLines& lines_;
    std::array<std::uint64_t, kNumberedClients> verifiedUpTo_{};
    mutable std::mutex mutex_;
    LogVerdict verdict_;
};

}  // namespace soak
