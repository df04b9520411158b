#include "server/network_report.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/last_error.h"
#include "platform/netif.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace {

// More interfaces than any unit has; bounds the buffer a table may ask for.
constexpr DWORD kMaxRows = 4096;

// Serialises the reports of all threads; created with the process.
host::CriticalSection reportLock;

// The description is an 8-bit text used up to its first zero byte.
std::string description(const host::MIB_IFROW& row) {
    const auto* text = reinterpret_cast<const char*>(row.bDescr);
    return std::string(text, strnlen(text, sizeof row.bDescr));
}

std::wstring interfaceLines(const host::MIB_IFROW& row) {
    std::wstring lines;
    lines += L"Description: '" + host::widen(description(row)) + L"' " +
             operStatusText(row.dwOperStatus) + host::wformat(L" Speed: %u\r\n", row.dwSpeed);
    lines += host::wformat(L"In Octets: %u Out Octets: %u Last Status Change: %u\r\n",
                           row.dwInOctets, row.dwOutOctets, row.dwLastChange);
    lines += host::wformat(
        L"In Packets: Unicast: %u Non-Unicast: %u Discards: %u Errored: %u Unknown: %u\r\n",
        row.dwInUcastPkts, row.dwInNUcastPkts, row.dwInDiscards, row.dwInErrors,
        row.dwInUnknownProtos);
    lines += host::wformat(
        L"Out Packets: Unicast: %u Non-Unicast: %u Discards: %u Errored: %u Out Queue Length: "
        L"%u\r\n",
        row.dwOutUcastPkts, row.dwOutNUcastPkts, row.dwOutDiscards, row.dwOutErrors, row.dwOutQLen);
    return lines;
}

}  // namespace

std::wstring operStatusText(DWORD status) {
    switch (status) {
        case host::MIB_IF_OPER_STATUS_NON_OPERATIONAL:
            return L"Status: 'Disabled'";
        case host::MIB_IF_OPER_STATUS_UNREACHABLE:
            return L"Status: 'WAN Down'";
        case host::MIB_IF_OPER_STATUS_DISCONNECTED:
            return L"Status: 'No Link'";
        case host::MIB_IF_OPER_STATUS_CONNECTING:
            return L"Status: 'WAN Connecting'";
        case host::MIB_IF_OPER_STATUS_CONNECTED:
            return L"Status: 'WAN Connected'";
        case host::MIB_IF_OPER_STATUS_OPERATIONAL:
            return L"Status: 'OK'";
        default:
            return L"Status: ???";
    }
}

std::wstring networkStatusReport(IfTableReader reader) {
    host::LockGuard lock(reportLock);
    std::wstring report = L"Network Status\r\n";
    DWORD size = 0;
    const DWORD answer = reader(nullptr, &size, TRUE_);
    switch (answer) {
        case ERROR_NOT_SUPPORTED:
            return L"TovelCtlr::logNetworkStatus: OS version doesn't support this feature";
        case ERROR_INVALID_PARAMETER:
            return L"TovelCtlr::logNetworkStatus: 'Invalid Parameter'";
        case ERROR_INSUFFICIENT_BUFFER:
            break;
        default:
            return L"TovelCtlr::logNetworkStatus: Unkown error: " +
                   std::to_wstring(host::GetLastError());
    }
    // The buffer holds at least the entry count and at most kMaxRows rows; a
    // table that claims more is then refused by the reader as too small.
    const std::size_t bytes =
        std::clamp<std::size_t>(size, host::kIfTableHeaderSize, host::ifTableSize(kMaxRows));
    std::vector<BYTE> table(bytes);
    DWORD filled = static_cast<DWORD>(table.size());
    const DWORD read = reader(table.data(), &filled, TRUE_);
    if (read != ERROR_SUCCESS)
        return host::wformat(L"TovelCtlr::logNetworkStatus: GetIfTable answers %u!", read);
    // Never read past the buffer, whatever count the table claims.
    const DWORD fits =
        static_cast<DWORD>((table.size() - host::kIfTableHeaderSize) / sizeof(host::MIB_IFROW));
    const DWORD rows = std::min(host::ifTableEntries(table.data()), fits);
    for (DWORD i = 0; i < rows; ++i) report += interfaceLines(host::ifTableRow(table.data(), i));
    return report;
}
