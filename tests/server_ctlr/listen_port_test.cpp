// The remote-command port from the registry, its default and its repair.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/clock.h"
#include "platform/registry.h"
#include "server/tovel_ctlr.h"
#include "tests/server_ctlr/ctlr_fixture.h"
#include "tests/support/test_support.h"

namespace {

const std::string kPortKeyLine = "[HKEY_LOCAL_MACHINE\\COMM\\Firewall\\Rules\\InboundTovel]\n";

class ListenPort : public ::testing::Test {
  protected:
    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>();
    host::ScopedClock scopedClock{clock};
    testing_support::TempUnitRoot root;
    testing_support::DebugCapture debug;
    TovelCtlr* ctlr = TovelCtlr::createInstance(TovelCtlr::ThreadSet::none());

    void SetUp() override { ctlrtest::installMarkerProgram(root, TovelCtlr::kRestartProgram); }
    void TearDown() override { TovelCtlr::deleteInstance(); }
};

TEST_F(ListenPort, ConfiguredPortIsUsedQuietlyAndReadAfreshEachTime) {
    ctlrtest::writeRegistry(root, kPortKeyLine + "\"Port\"=dword:00000fa0\n");
    EXPECT_EQ(ctlr->getListenPort(), 4000u);
    host::HKEY key = 0;
    ASSERT_EQ(host::RegOpenKeyExW(host::HKEY_LOCAL_MACHINE, TovelCtlr::kPortKey, &key),
              ERROR_SUCCESS);
    const DWORD changed = 5001;
    host::RegSetValueExW(key, L"Port", host::REG_DWORD, reinterpret_cast<const BYTE*>(&changed), 4);
    host::RegCloseKey(key);
    EXPECT_EQ(ctlr->getListenPort(), 5001u);
    // The unit's write is in the file at once; an operator's edit of the file
    // while the unit runs is seen by the next read.
    EXPECT_NE(root.readFile(L"registry.reg").find("dword:00001389"), std::string::npos);
    root.writeFile(L"registry.reg", "REGEDIT4\n\n" + kPortKeyLine + "\"Port\"=dword:00001770\n");
    EXPECT_EQ(ctlr->getListenPort(), 6000u);
    EXPECT_FALSE(debug.contains(L"Error"));
    EXPECT_EQ(clock->totalSlept(), 0u);
}

TEST_F(ListenPort, MissingKeyMeansTheDefaultWithoutRepair) {
    ctlrtest::writeRegistry(root,
                            "[HKEY_LOCAL_MACHINE\\Platform]\n\"Name\"=\"Kestrix Platform\"\n");
    EXPECT_EQ(ctlr->getListenPort(), 3445u);
    EXPECT_TRUE(debug.contains(L"Error opening registry key, using port# 3445..."));
    EXPECT_TRUE(testing_support::logContains(L"Error opening registry key, using port# 3445..."));
    host::reloadRegistry();
    host::HKEY key = 0;
    EXPECT_NE(host::RegOpenKeyExW(host::HKEY_LOCAL_MACHINE, TovelCtlr::kPortKey, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(clock->totalSlept(), 0u);
    EXPECT_FALSE(ctlrtest::markerExists(root, TovelCtlr::kRestartProgram));
}

// A key without the value, or a value too long for the buffer.
TEST_F(ListenPort, UnreadablePortIsRepairedAndTheUnitRestarted) {
    const std::pair<std::string, const wchar_t*> cases[] = {
        {"\"Other\"=dword:00000001\n", L"Error #2 while reading port #"},
        {"\"Port\"=\"" + std::string(600, '9') + "\"\n", L"Error #234 while reading port #"}};
    for (const auto& [value, error] : cases) {
        SCOPED_TRACE(error);
        std::filesystem::remove(root.hostPath(TovelCtlr::kRestartProgram) + ".ran");
        ctlrtest::writeRegistry(root, kPortKeyLine + value);
        const std::uint64_t slept = clock->totalSlept();
        EXPECT_EQ(ctlr->getListenPort(), 3445u);
        EXPECT_TRUE(debug.contains(std::wstring(error) + L"; setting to 3445, restarting..."));
        EXPECT_EQ(clock->totalSlept() - slept, 5000u);
        host::reloadRegistry();  // what was flushed to the file
        DWORD port = 0;
        ASSERT_TRUE(host::regReadDword(TovelCtlr::kPortKey, L"Port", &port));
        EXPECT_EQ(port, 3445u);
        EXPECT_TRUE(ctlrtest::eventually(
            [&] { return ctlrtest::markerExists(root, TovelCtlr::kRestartProgram); }));
    }
}

}  // namespace
