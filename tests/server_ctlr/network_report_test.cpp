// The network status report: its layout from a given interface table, its
// error texts, and the machine's own table read through the host layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include "platform/last_error.h"
#include "platform/netif.h"
#include "server/network_report.h"
#include "server/tovel_ctlr.h"

namespace fs = std::filesystem;

namespace {

// The table the stand-in reader answers with, and its answers.
std::vector<host::MIB_IFROW> fakeRows;
DWORD fakeSizeAnswer = ERROR_INSUFFICIENT_BUFFER;
DWORD fakeReadAnswer = ERROR_SUCCESS;

DWORD fakeReader(BYTE* table, DWORD* size, BOOL) {
    const DWORD needed = host::ifTableSize(static_cast<DWORD>(fakeRows.size()));
    if (!table) {
        *size = needed;
        return fakeSizeAnswer;
    }
    if (fakeReadAnswer != ERROR_SUCCESS) return fakeReadAnswer;
    if (*size < needed) return ERROR_INSUFFICIENT_BUFFER;
    const DWORD count = static_cast<DWORD>(fakeRows.size());
    std::memcpy(table, &count, sizeof count);
    if (count)
        std::memcpy(table + host::kIfTableHeaderSize, fakeRows.data(),
                    count * sizeof(host::MIB_IFROW));
    return ERROR_SUCCESS;
}

host::MIB_IFROW row(const char* name, DWORD status, DWORD speed) {
    host::MIB_IFROW r{};
    const std::size_t length = std::min(std::strlen(name), sizeof r.bDescr - 1);
    std::memcpy(r.bDescr, name, length);
    r.dwDescrLen = static_cast<DWORD>(std::strlen(name) + 1);
    r.dwOperStatus = status;
    r.dwSpeed = speed;
    return r;
}

std::wstring lineOf(const std::wstring& report, int index) {
    std::size_t start = 0;
    for (int i = 0; i < index; ++i) start = report.find(L"\r\n", start) + 2;
    return report.substr(start, report.find(L"\r\n", start) + 2 - start);
}

class NetworkReport : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeRows.clear();
        fakeSizeAnswer = ERROR_INSUFFICIENT_BUFFER;
        fakeReadAnswer = ERROR_SUCCESS;
    }
};

TEST_F(NetworkReport, FourLinesPerInterfaceBehindTheHeader) {
    host::MIB_IFROW eth = row("eth0", 5, 10);
    eth.dwInOctets = 1000;
    eth.dwOutOctets = 2000;
    eth.dwLastChange = 77;
    eth.dwInUcastPkts = 1;
    eth.dwInNUcastPkts = 2;
    eth.dwInDiscards = 3;
    eth.dwInErrors = 4;
    eth.dwInUnknownProtos = 5;
    eth.dwOutUcastPkts = 6;
    eth.dwOutNUcastPkts = 7;
    eth.dwOutDiscards = 8;
    eth.dwOutErrors = 9;
    eth.dwOutQLen = 4294967295u;
    fakeRows = {eth};
    EXPECT_EQ(networkStatusReport(fakeReader),
              L"Network Status\r\n"
              L"Description: 'eth0' Status: 'OK' Speed: 10\r\n"
              L"In Octets: 1000 Out Octets: 2000 Last Status Change: 77\r\n"
              L"In Packets: Unicast: 1 Non-Unicast: 2 Discards: 3 Errored: 4 Unknown: 5\r\n"
              L"Out Packets: Unicast: 6 Non-Unicast: 7 Discards: 8 Errored: 9 Out Queue Length: "
              L"4294967295\r\n");
}

TEST_F(NetworkReport, OperationalStatusOutsideTheSixValuesIsUnknown) {
    EXPECT_EQ(operStatusText(1), L"Status: 'WAN Down'");
    EXPECT_EQ(operStatusText(4), L"Status: 'WAN Connected'");
    fakeRows = {row("a", 7, 0), row("b", 0xFFFFFFFFu, 0)};
    const std::wstring report = networkStatusReport(fakeReader);
    EXPECT_EQ(lineOf(report, 1), L"Description: 'a' Status: ??? Speed: 0\r\n");
    EXPECT_EQ(lineOf(report, 5), L"Description: 'b' Status: ??? Speed: 0\r\n");
}

TEST_F(NetworkReport, DescriptionEndsAtItsFirstZeroByte) {
    host::MIB_IFROW r = row("wlan0", 2, 0);
    r.bDescr[2] = 0;
    std::memset(r.bDescr + 3, 'x', sizeof r.bDescr - 3);  // no terminator after the cut
    fakeRows = {r};
    EXPECT_EQ(lineOf(networkStatusReport(fakeReader), 1),
              L"Description: 'wl' Status: 'No Link' Speed: 0\r\n");
}

TEST_F(NetworkReport, EmptyTableGivesTheHeaderOnly) {
    EXPECT_EQ(networkStatusReport(fakeReader), L"Network Status\r\n");
}

TEST_F(NetworkReport, TableFailuresBecomeOneErrorText) {
    fakeSizeAnswer = ERROR_NOT_SUPPORTED;
    EXPECT_EQ(networkStatusReport(fakeReader),
              L"TovelCtlr::logNetworkStatus: OS version doesn't support this feature");
    fakeSizeAnswer = ERROR_INVALID_PARAMETER;
    EXPECT_EQ(networkStatusReport(fakeReader), L"TovelCtlr::logNetworkStatus: 'Invalid Parameter'");
    fakeSizeAnswer = ERROR_GEN_FAILURE;
    host::SetLastError(1234);
    EXPECT_EQ(networkStatusReport(fakeReader), L"TovelCtlr::logNetworkStatus: Unkown error: 1234");
    fakeSizeAnswer = ERROR_INSUFFICIENT_BUFFER;
    fakeReadAnswer = ERROR_GEN_FAILURE;
    EXPECT_EQ(networkStatusReport(fakeReader),
              L"TovelCtlr::logNetworkStatus: GetIfTable answers 31!");
}

TEST_F(NetworkReport, MachineTableShowsTheLoopbackInterface) {
    const std::wstring report =
        TovelCtlr::createInstance(TovelCtlr::ThreadSet::none())->logNetworkStatus();
    ASSERT_EQ(report.rfind(L"Network Status\r\n", 0), 0u) << report;
    // The loopback device does not report a state of its own while up, and has no speed.
    EXPECT_NE(report.find(L"Description: 'lo' Status: 'OK' Speed: 0\r\nIn Octets: "),
              std::wstring::npos)
        << report;
}

// An interface folder laid out like /sys/class/net/<name>.
void writeInterface(const fs::path& base, const std::string& name,
                    const std::map<std::string, std::string>& files) {
    fs::create_directories(base / name / "statistics");
    for (const auto& [file, text] : files) std::ofstream(base / name / file) << text << "\n";
}

class MachineTable : public ::testing::Test {
  protected:
    fs::path base =
        fs::temp_directory_path() /
        ("tovel-netif-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
         std::to_string(reinterpret_cast<std::uintptr_t>(this)));
    void SetUp() override { host::setIfTableFolderForTest(base.string()); }
    void TearDown() override {
        host::setIfTableFolderForTest("");
        fs::remove_all(base);
    }
    std::vector<host::MIB_IFROW> read() {
        DWORD size = 0;
        EXPECT_EQ(host::GetIfTable(nullptr, &size, TRUE_), ERROR_INSUFFICIENT_BUFFER);
        std::vector<BYTE> table(size);
        EXPECT_EQ(host::GetIfTable(table.data(), &size, TRUE_), ERROR_SUCCESS);
        std::vector<host::MIB_IFROW> rows;
        for (DWORD i = 0; i < host::ifTableEntries(table.data()); ++i)
            rows.push_back(host::ifTableRow(table.data(), i));
        return rows;
    }
};

TEST_F(MachineTable, RowsComeSortedByIndexWithKernelCounters) {
    writeInterface(base, "eth1",
                   {{"ifindex", "3"},
                    {"operstate", "up"},
                    {"flags", "0x1003"},
                    {"speed", "1000"},
                    {"statistics/rx_bytes", "4294967302"},
                    {"statistics/rx_packets", "10"},
                    {"statistics/multicast", "4"},
                    {"statistics/tx_packets", "8"},
                    {"statistics/rx_nohandler", "2"}});
    writeInterface(base, "lo",
                   {{"ifindex", "1"}, {"operstate", "unknown"}, {"flags", "0x9"}, {"type", "772"}});
    writeInterface(
        base, "eth0",
        {{"ifindex", "2"}, {"operstate", "down"}, {"flags", "0x1003"}, {"speed", "100000"}});
    const auto rows = read();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_STREQ(reinterpret_cast<const char*>(rows[0].bDescr), "lo");
    EXPECT_EQ(rows[0].dwOperStatus, host::MIB_IF_OPER_STATUS_OPERATIONAL);
    EXPECT_EQ(rows[0].dwType, host::MIB_IF_TYPE_LOOPBACK);
    EXPECT_STREQ(reinterpret_cast<const char*>(rows[1].bDescr), "eth0");
    EXPECT_EQ(rows[1].dwOperStatus, host::MIB_IF_OPER_STATUS_DISCONNECTED);  // up, but no carrier
    EXPECT_EQ(rows[1].dwSpeed, 4294967295u);  // 100 Gbit/s does not fit
    const auto& eth1 = rows[2];
    EXPECT_EQ(eth1.dwSpeed, 1000000000u);
    EXPECT_EQ(eth1.dwInOctets, 6u);  // the counter wraps at 32 bits
    EXPECT_EQ(eth1.dwInUcastPkts, 6u);
    EXPECT_EQ(eth1.dwInNUcastPkts, 4u);
    EXPECT_EQ(eth1.dwInUnknownProtos, 2u);
    EXPECT_EQ(eth1.dwOutUcastPkts, 8u);
}

TEST_F(MachineTable, KernelStatesMapOntoTheSixValues) {
    writeInterface(base, "a", {{"ifindex", "1"}, {"operstate", "down"}, {"flags", "0x1002"}});
    writeInterface(base, "b", {{"ifindex", "2"}, {"operstate", "dormant"}, {"flags", "0x1003"}});
    writeInterface(base, "c",
                   {{"ifindex", "3"}, {"operstate", "lowerlayerdown"}, {"flags", "0x1003"}});
    writeInterface(base, "d", {{"ifindex", "4"}, {"operstate", "notpresent"}, {"flags", "0x1003"}});
    writeInterface(base, "e", {{"ifindex", "5"}, {"operstate", "bogus"}, {"flags", "0x1003"}});
    const auto rows = read();
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[0].dwOperStatus, host::MIB_IF_OPER_STATUS_NON_OPERATIONAL);  // switched off
    EXPECT_EQ(rows[1].dwOperStatus, host::MIB_IF_OPER_STATUS_CONNECTING);
    EXPECT_EQ(rows[2].dwOperStatus, host::MIB_IF_OPER_STATUS_DISCONNECTED);
    EXPECT_EQ(rows[3].dwOperStatus, host::MIB_IF_OPER_STATUS_UNREACHABLE);
    EXPECT_EQ(operStatusText(rows[4].dwOperStatus), L"Status: ???");
}

TEST_F(MachineTable, MissingTableIsNotSupportedAndSmallBuffersAreRefused) {
    fs::create_directories(base);
    DWORD size = 0;
    EXPECT_EQ(host::GetIfTable(nullptr, &size, TRUE_), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, host::ifTableSize(0));
    EXPECT_EQ(host::GetIfTable(nullptr, nullptr, TRUE_), ERROR_INVALID_PARAMETER);
    writeInterface(base, "x", {{"ifindex", "1"}});
    std::vector<BYTE> small(host::ifTableSize(0));
    size = static_cast<DWORD>(small.size());
    EXPECT_EQ(host::GetIfTable(small.data(), &size, TRUE_), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, host::ifTableSize(1));
    fs::remove_all(base);
    EXPECT_EQ(host::GetIfTable(nullptr, &size, TRUE_), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(networkStatusReport(host::GetIfTable),
              L"TovelCtlr::logNetworkStatus: OS version doesn't support this feature");
}

}  // namespace
