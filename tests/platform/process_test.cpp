#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/last_error.h"
#include "platform/modules.h"
#include "platform/process.h"
#include "tests/support/test_support.h"
#include "tests/support/waiting.h"

using namespace host;

TEST(Process, StartsAProgramNamedByAnOriginalPathWithoutWaiting) {
    testing_support::TempUnitRoot root;
    EXPECT_FALSE(CreateProcessW(L"\\Windows\\restart.exe"));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    root.writeFile(L"\\Windows\\restart.exe", "#!/bin/sh\ntouch \"$(dirname \"$0\")/ran\"\n");
    chmod(root.hostPath(L"\\Windows\\restart.exe").c_str(), 0755);
    ASSERT_TRUE(CreateProcessW(L"\\WINDOWS\\Restart.exe"));
    EXPECT_TRUE(testing_support::eventually(
        [&] { return std::filesystem::exists(root.path() + "/Windows/ran"); }));
}

TEST(Process, ExitGoesThroughTheInstalledHandler) {
    std::atomic<int> code{0};
    setExitHandler([&](int c) { code = c; });
    std::thread t([] { ExitProcess(22); });
    t.detach();  // the exiting thread never comes back
    EXPECT_TRUE(testing_support::eventually([&] { return code == 22; }));
}

namespace {
int calls = 0;
void entry() {
    ++calls;
}
}  // namespace

TEST(Modules, EntriesAreFoundByNameAndMissingOnesAreReported) {
    registerModule(L"adsapidll.dll", {{"ADSStartWatchDog", &entry}});
    EXPECT_EQ(LoadLibraryW(L"missing.dll"), NULL_HANDLE);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    HANDLE m = LoadLibraryW(L"ADSAPIDLL.DLL");
    ASSERT_NE(m, NULL_HANDLE);
    EXPECT_EQ(GetProcAddressW(m, "ADSServiceWatchdog"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    procAs<void (*)()>(GetProcAddressW(m, "ADSStartWatchDog"))();
    EXPECT_EQ(calls, 1);
    FreeLibrary(m);
}
