#pragma once
// The interface table of the IP helper (GetIfTable): one MIB-II row per
// network interface of the machine, with its status and traffic counters.
// On Linux the rows come from /sys/class/net: the interface name serves as
// the description, and the counters are the low 32 bits of the kernel's
// statistics, which wrap like the MIB-II counters they stand for.
#include <cstddef>
#include <string>

#include "platform/win_types.h"

namespace host {

inline constexpr DWORD MAXLEN_IFDESCR = 256;
inline constexpr DWORD MAXLEN_PHYSADDR = 8;

// Operational status values of a row.
inline constexpr DWORD MIB_IF_OPER_STATUS_NON_OPERATIONAL = 0;
inline constexpr DWORD MIB_IF_OPER_STATUS_UNREACHABLE = 1;
inline constexpr DWORD MIB_IF_OPER_STATUS_DISCONNECTED = 2;
inline constexpr DWORD MIB_IF_OPER_STATUS_CONNECTING = 3;
inline constexpr DWORD MIB_IF_OPER_STATUS_CONNECTED = 4;
inline constexpr DWORD MIB_IF_OPER_STATUS_OPERATIONAL = 5;

// Interface types used here.
inline constexpr DWORD MIB_IF_TYPE_OTHER = 1;
inline constexpr DWORD MIB_IF_TYPE_ETHERNET = 6;
inline constexpr DWORD MIB_IF_TYPE_LOOPBACK = 24;

struct MIB_IFROW {
    DWORD dwIndex;
    DWORD dwType;
    DWORD dwMtu;
    DWORD dwSpeed;  // bits per second, the largest DWORD when faster
    DWORD dwPhysAddrLen;
    BYTE bPhysAddr[MAXLEN_PHYSADDR];
    DWORD dwAdminStatus;  // 1 up, 2 down
    DWORD dwOperStatus;
    DWORD dwLastChange;
    DWORD dwInOctets;
    DWORD dwInUcastPkts;
    DWORD dwInNUcastPkts;
    DWORD dwInDiscards;
    DWORD dwInErrors;
    DWORD dwInUnknownProtos;
    DWORD dwOutOctets;
    DWORD dwOutUcastPkts;
    DWORD dwOutNUcastPkts;
    DWORD dwOutDiscards;
    DWORD dwOutErrors;
    DWORD dwOutQLen;
    DWORD dwDescrLen;             // bytes of bDescr, its terminating zero included
    BYTE bDescr[MAXLEN_IFDESCR];  // 8-bit text, zero-terminated
};

// The table as GetIfTable fills a caller's buffer: the DWORD entry count
// followed by the rows. Rows are read out with ifTableRow (the buffer has no
// alignment beyond a DWORD's).
inline constexpr std::size_t kIfTableHeaderSize = sizeof(DWORD);
constexpr DWORD ifTableSize(DWORD rows) {
    return static_cast<DWORD>(kIfTableHeaderSize + rows * sizeof(MIB_IFROW));
}
DWORD ifTableEntries(const BYTE* table);
// Row `index` (below ifTableEntries) of a filled table.
MIB_IFROW ifTableRow(const BYTE* table, DWORD index);

// Fills `table` (of *size bytes) with the interface table, sorted by
// interface index when `order` is set. Answers NO_ERROR (0);
// ERROR_INSUFFICIENT_BUFFER (122) with the size needed in *size when
// `table` is null or too small; ERROR_INVALID_PARAMETER (87) for a null
// `size`; ERROR_NOT_SUPPORTED (50) when the machine has no interface table.
DWORD GetIfTable(BYTE* table, DWORD* size, BOOL order);

// Tests only: read the interface table from another folder laid out like
// /sys/class/net (an empty path restores the real one).
void setIfTableFolderForTest(const std::string& hostFolder);

}  // namespace host
