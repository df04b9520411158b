#include "platform/netif.h"
#include "platform/no_destructor.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace host {
namespace {

constexpr const char* kSysClassNet = "/sys/class/net";
constexpr unsigned kIffUp = 0x1;  // the administrative "up" flag of the flags file
constexpr unsigned kArphrdEther = 1;
constexpr unsigned kArphrdLoopback = 772;

struct Folder {
    std::mutex mutex;
    std::string path = kSysClassNet;
};
Folder& folder() {
    static NoDestructor<Folder> f;
    return *f;
}
std::string tableFolder() {
    std::lock_guard<std::mutex> lock(folder().mutex);
    return folder().path;
}

// The first line of a sysfs attribute; nullopt when it cannot be read (some
// attributes, like the speed of a loopback device, refuse to be read).
std::optional<std::string> readAttribute(const fs::path& file) {
    std::ifstream in(file);
    std::string line;
    if (!in || !std::getline(in, line)) return std::nullopt;
    return line;
}

std::optional<std::uint64_t> readNumber(const fs::path& file, int base = 10) {
    auto text = readAttribute(file);
    if (!text || text->empty()) return std::nullopt;
    try {
        std::size_t used = 0;
        long long value = std::stoll(*text, &used, base);
        if (value < 0) return std::nullopt;
        return static_cast<std::uint64_t>(value);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// A kernel counter as a MIB-II counter: the low 32 bits, which wrap.
DWORD counter(const fs::path& statistics, const char* name) {
    return static_cast<DWORD>(readNumber(statistics / name).value_or(0) & 0xFFFFFFFFu);
}

// The kernel's operational states (RFC 2863 names) on the six MIB-II
// values. A device that does not report its state ("unknown", as the
// loopback device does) counts as working while it is up, as the kernel's
// own routing treats it.
DWORD operStatus(const std::string& state, bool adminUp) {
    if (state == "up") return MIB_IF_OPER_STATUS_OPERATIONAL;
    if (state == "unknown")
        return adminUp ? MIB_IF_OPER_STATUS_OPERATIONAL : MIB_IF_OPER_STATUS_NON_OPERATIONAL;
    if (state == "dormant") return MIB_IF_OPER_STATUS_CONNECTING;
    if (state == "lowerlayerdown") return MIB_IF_OPER_STATUS_DISCONNECTED;
    if (state == "down")
        return adminUp ? MIB_IF_OPER_STATUS_DISCONNECTED : MIB_IF_OPER_STATUS_NON_OPERATIONAL;
    if (state == "notpresent") return MIB_IF_OPER_STATUS_UNREACHABLE;
    if (state == "testing") return MIB_IF_OPER_STATUS_NON_OPERATIONAL;
    // A state this table does not know: a value outside the six.
    return 0xFFFFFFFFu;
}

DWORD speedBitsPerSecond(const fs::path& dir) {
    auto mbit = readNumber(dir / "speed");
    if (!mbit) return 0;
    std::uint64_t bits = *mbit * 1000000u;
    return static_cast<DWORD>(std::min<std::uint64_t>(bits, 0xFFFFFFFFu));
}

void fillPhysAddr(const fs::path& dir, MIB_IFROW& row) {
    auto text = readAttribute(dir / "address");
    if (!text) return;
    DWORD n = 0;
    std::size_t pos = 0;
    while (pos + 1 < text->size() && n < MAXLEN_PHYSADDR) {
        try {
            row.bPhysAddr[n] = static_cast<BYTE>(std::stoul(text->substr(pos, 2), nullptr, 16));
        } catch (const std::exception&) {
            break;
        }
        ++n;
        pos += 3;
    }
    row.dwPhysAddrLen = n;
}

MIB_IFROW readRow(const fs::path& dir) {
    MIB_IFROW row{};
    const std::string name = dir.filename().string();
    const std::size_t len = std::min<std::size_t>(name.size(), MAXLEN_IFDESCR - 1);
    std::memcpy(row.bDescr, name.data(), len);
    row.dwDescrLen = static_cast<DWORD>(len + 1);

    row.dwIndex = static_cast<DWORD>(readNumber(dir / "ifindex").value_or(0));
    const auto type = readNumber(dir / "type").value_or(0);
    row.dwType = type == kArphrdLoopback ? MIB_IF_TYPE_LOOPBACK
                 : type == kArphrdEther  ? MIB_IF_TYPE_ETHERNET
                                         : MIB_IF_TYPE_OTHER;
    row.dwMtu = static_cast<DWORD>(readNumber(dir / "mtu").value_or(0));
    row.dwSpeed = speedBitsPerSecond(dir);
    fillPhysAddr(dir, row);

    const bool adminUp = (readNumber(dir / "flags", 16).value_or(0) & kIffUp) != 0;
    row.dwAdminStatus = adminUp ? 1 : 2;
    row.dwOperStatus = operStatus(readAttribute(dir / "operstate").value_or(""), adminUp);
    // The kernel keeps no time of the last state change where it can be read.
    row.dwLastChange = 0;

    const fs::path stats = dir / "statistics";
    const DWORD rxPackets = counter(stats, "rx_packets");
    const DWORD multicast = counter(stats, "multicast");
    row.dwInOctets = counter(stats, "rx_bytes");
    // The kernel counts multicast packets within rx_packets.
    row.dwInUcastPkts = rxPackets - std::min(rxPackets, multicast);
    row.dwInNUcastPkts = multicast;
    row.dwInDiscards = counter(stats, "rx_dropped");
    row.dwInErrors = counter(stats, "rx_errors");
    row.dwInUnknownProtos = counter(stats, "rx_nohandler");
    row.dwOutOctets = counter(stats, "tx_bytes");
    // Sent multicast packets are not counted apart, nor is the current
    // length of the output queue kept: both read as 0.
    row.dwOutUcastPkts = counter(stats, "tx_packets");
    row.dwOutNUcastPkts = 0;
    row.dwOutDiscards = counter(stats, "tx_dropped");
    row.dwOutErrors = counter(stats, "tx_errors");
    row.dwOutQLen = 0;
    return row;
}

std::optional<std::vector<MIB_IFROW>> readTable(bool sorted) {
    const fs::path base = tableFolder();
    std::error_code ec;
    if (!fs::is_directory(base, ec)) return std::nullopt;
    std::vector<MIB_IFROW> rows;
    for (fs::directory_iterator it(base, ec), end; !ec && it != end; it.increment(ec)) {
        rows.push_back(readRow(it->path()));
    }
    if (ec) return std::nullopt;
    if (sorted) {
        std::stable_sort(rows.begin(), rows.end(), [](const MIB_IFROW& a, const MIB_IFROW& b) {
            return a.dwIndex < b.dwIndex;
        });
    }
    return rows;
}

}  // namespace

DWORD ifTableEntries(const BYTE* table) {
    DWORD n = 0;
    std::memcpy(&n, table, sizeof n);
    return n;
}

MIB_IFROW ifTableRow(const BYTE* table, DWORD index) {
    MIB_IFROW row{};
    std::memcpy(&row, table + kIfTableHeaderSize + index * sizeof(MIB_IFROW), sizeof row);
    return row;
}

DWORD GetIfTable(BYTE* table, DWORD* size, BOOL order) {
    if (!size) return ERROR_INVALID_PARAMETER;
    auto rows = readTable(order != FALSE_);
    if (!rows) return ERROR_NOT_SUPPORTED;
    const DWORD needed = ifTableSize(static_cast<DWORD>(rows->size()));
    if (!table || *size < needed) {
        *size = needed;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    const DWORD count = static_cast<DWORD>(rows->size());
    std::memcpy(table, &count, sizeof count);
    if (count) std::memcpy(table + kIfTableHeaderSize, rows->data(), count * sizeof(MIB_IFROW));
    *size = needed;
    return ERROR_SUCCESS;
}

void setIfTableFolderForTest(const std::string& hostFolder) {
    std::lock_guard<std::mutex> lock(folder().mutex);
    folder().path = hostFolder.empty() ? kSysClassNet : hostFolder;
}

}  // namespace host
