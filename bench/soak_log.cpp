#include "bench/soak_log.h"

#include <filesystem>
#include <optional>

#include "tests/support/test_support.h"

namespace soak {
namespace {

const std::wstring kHead = L"SW/Comm Error! Unknown opCode ";
const std::wstring kTail = L" in ServerThreadCallback, Rem_Control API!!";

// The sub-command of a whole numbered line; nullopt for other lines, -1 for
// a numbered line that is not whole.
std::optional<int> numberOf(const std::wstring& line) {
    const auto at = line.find(L"Unknown opCode");
    if (at == std::wstring::npos) return std::nullopt;
    if (line.rfind(kHead, 0) != 0 || line.size() <= kHead.size() + kTail.size() ||
        line.compare(line.size() - kTail.size(), kTail.size(), kTail) != 0)
        return -1;
    const std::wstring digits =
        line.substr(kHead.size(), line.size() - kHead.size() - kTail.size());
    if (digits.empty() || digits.size() > 3 ||
        digits.find_first_not_of(L"0123456789") != std::wstring::npos)
        return -1;
    return std::stoi(digits);
}

std::optional<std::filesystem::file_time_type> modified(const std::string& path) {
    std::error_code error;
    const auto time = std::filesystem::last_write_time(path, error);
    if (error) return std::nullopt;
    return time;
}

}  // namespace

LogChecker::LogChecker(std::string logFolder, const NumberedLines& lines)
    : folder_(std::move(logFolder)), lines_(lines) {}

bool LogChecker::readBothFiles(std::vector<std::wstring>& lines) const {
    const std::string current = folder_ + "/usb.log";
    const std::string old = folder_ + "/usb.log.old";
    // A rotation between the two reads would show some lines twice and lose
    // others: read again until the older file stayed the same throughout.
    for (int attempt = 0; attempt < 20; ++attempt) {
        const auto before = modified(old);
        lines = std::filesystem::exists(old) ? testing_support::logLinesOf(old)
                                             : std::vector<std::wstring>{};
        const auto recent = testing_support::logLinesOf(current);
        if (modified(old) != before) continue;
        lines.insert(lines.end(), recent.begin(), recent.end());
        return true;
    }
    return false;
}

void LogChecker::check() {
    std::array<std::uint64_t, kNumberedClients> writtenBefore{};
    for (int k = 0; k < kNumberedClients; ++k) writtenBefore[k] = lines_.confirmed[k].load();
    std::vector<std::wstring> all;
    const bool read = readBothFiles(all);
    std::array<std::uint64_t, kNumberedClients> writtenAfter{};
    for (int k = 0; k < kNumberedClients; ++k) writtenAfter[k] = lines_.confirmed[k].load();

    std::lock_guard<std::mutex> lock(mutex_);
    ++verdict_.checks;
    if (!read) return;  // the next check sees the same lines
    std::array<std::vector<int>, kNumberedClients> seen;
    for (const auto& line : all) {
        const auto number = numberOf(line);
        if (!number) continue;
        if (*number < kFirstNumber) {
            ++verdict_.lost;  // torn
            continue;
        }
        const int k = (*number - kFirstNumber) / kNumbersPerClient;
        if (k < kNumberedClients) seen[k].push_back((*number - kFirstNumber) % kNumbersPerClient);
    }
    for (int k = 0; k < kNumberedClients; ++k) {
        const std::uint64_t before = writtenBefore[k];
        std::uint64_t& verified = verifiedUpTo_[k];
        if (before <= verified) continue;
        const auto& rest = seen[k];
        if (rest.empty()) {
            verdict_.lost += before - verified;
            verified = before;
            continue;
        }
        // The newest line is the last one confirmed before the read, or one
        // confirmed (or on its way) while the files were read.
        const auto period = static_cast<std::uint64_t>(kNumbersPerClient);
        std::uint64_t n = writtenAfter[k];
        while (n > 0 && n % period != static_cast<std::uint64_t>(rest.back())) --n;
        if (n + 1 < before) verdict_.lost += before - (n + 1);
        // Walk back: each line is the one after its predecessor, or the same
        // one again (a request retried after its connection failed).
        for (std::size_t i = rest.size() - 1; i > 0 && n > verified; --i) {
            const auto step = static_cast<std::uint64_t>(
                ((rest[i] - rest[i - 1]) % kNumbersPerClient + kNumbersPerClient) %
                kNumbersPerClient);
            if (step > 1) verdict_.lost += step - 1;
            if (n < step) break;
            n -= step;
        }
        if (n > verified) verdict_.unchecked += n - verified;
        verdict_.checked += before - verified;
        verified = before;
    }
}

LogVerdict LogChecker::verdict() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return verdict_;
}

}  // namespace soak
