#include "tools/tovel/start_options.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace tovelcmd {
namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(separator, start);
        parts.push_back(
            text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

template <class T>
std::optional<T> parseUnsigned(const std::string& text) {
    if (text.empty() ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<std::vector<BoardChoice>> parseBoardList(const std::string& list,
                                                       std::string& error) {
    std::vector<BoardChoice> boards;
    if (list == "none") return boards;
    std::map<sim::BoardKind, std::uint32_t> lastSerial;
    for (const std::string& item : split(list, ',')) {
        if (item.empty()) {
            error = "empty board in \"" + list + "\" (use \"none\" for no board)";
            return std::nullopt;
        }
        const std::size_t colon = item.find(':');
        const std::string kindText = item.substr(0, colon);
        const auto kind = sim::parseBoardKind(kindText);
        if (!kind) {
            error = "unknown board kind \"" + kindText + "\" (kinds: t1, rf, ip, ipg, pots)";
            return std::nullopt;
        }
        std::uint32_t serial = 0;
        if (colon != std::string::npos) {
            const auto parsed = parseUnsigned<std::uint32_t>(item.substr(colon + 1));
            if (!parsed) {
                error = "bad serial number in \"" + item + "\" (a decimal number up to 4294967295)";
                return std::nullopt;
            }
            serial = *parsed;
        } else {
            auto last = lastSerial.find(*kind);
            serial = last == lastSerial.end() ? sim::defaultBoardSpec(*kind).detail.serial
                                              : last->second + 1;
        }
        const bool taken =
            std::any_of(boards.begin(), boards.end(),
                        [serial](const BoardChoice& b) { return b.serial == serial; });
        if (taken) {
            error = "serial number " + std::to_string(serial) + " is named twice";
            return std::nullopt;
        }
        lastSerial[*kind] = serial;
        boards.push_back({*kind, serial});
    }
    if (boards.size() > static_cast<std::size_t>(kMaxBoards)) {
        error = "at most " + std::to_string(kMaxBoards) + " boards fit the bus";
        return std::nullopt;
    }
    return boards;
}

std::optional<PortMapping> parsePortMapping(const std::string& text, std::string& error) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        error = "port map \"" + text + "\" is not PORT=HOSTPORT";
        return std::nullopt;
    }
    const auto program = parseUnsigned<std::uint16_t>(text.substr(0, equals));
    const auto hostPort = parseUnsigned<std::uint16_t>(text.substr(equals + 1));
    if (!program || *program == 0 || !hostPort) {
        error = "port map \"" + text + "\" needs ports from 1 to 65535 (HOSTPORT 0: any free one)";
        return std::nullopt;
    }
    return PortMapping{*program, *hostPort};
}

}  // namespace tovelcmd
