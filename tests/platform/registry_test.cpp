#include <gtest/gtest.h>

#include <algorithm>

#include "platform/registry.h"
#include "tests/support/test_support.h"

using namespace host;

namespace {
const char* kUnitRegistry =
    "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\COMM\\Firewall\\Rules\\InboundTovel]\r\n"
    "\"Port\"=dword:00000d75\r\n\r\n[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=\"Kestrix "
    "Platform\"\r\n";
}

TEST(Registry, ReadsTheUnitsFileWithoutRegardToCase) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\registry.reg", kUnitRegistry);
    DWORD port = 0;
    EXPECT_TRUE(regReadDword(L"\\comm\\firewall\\rules\\inboundtovel", L"PORT", &port));
    EXPECT_EQ(port, 3445u);
    std::wstring name;
    EXPECT_TRUE(regReadString(L"Platform", L"Name", &name));
    EXPECT_EQ(name, L"Kestrix Platform");
}

TEST(Registry, QueryAnswersNotFoundAndMoreData) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\registry.reg", kUnitRegistry);
    HKEY key = 0;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Missing\\Key", &key), 2);
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Platform", &key), 0);
    BYTE small[4];
    DWORD size = sizeof small, type = 0;
    EXPECT_EQ(RegQueryValueExW(key, L"Name", &type, small, &size), 234);
    EXPECT_EQ(size, (16 + 1) * sizeof(wchar_t));
    EXPECT_EQ(RegQueryValueExW(key, L"Absent", &type, small, &size), 2);
    RegCloseKey(key);
}

TEST(Registry, SetAndFlushRoundTripThroughTheFile) {
    testing_support::TempUnitRoot root;
    HKEY key = 0;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"COMM\\Firewall\\Rules\\InboundTovel", &key), 0);
    DWORD port = 3445;
    ASSERT_EQ(RegSetValueExW(key, L"Port", REG_DWORD, reinterpret_cast<BYTE*>(&port), 4), 0);
    std::wstring text = L"say \"hi\" \\ there";
    ASSERT_EQ(RegSetValueExW(key, L"Note", REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                             static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              0);
    ASSERT_EQ(RegFlushKey(key), 0);
    RegCloseKey(key);
    EXPECT_NE(root.readFile(L"\\registry.reg").find("\"Port\"=dword:00000d75"), std::string::npos);
    reloadRegistry();
    DWORD again = 0;
    std::wstring note;
    EXPECT_TRUE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &again));
    EXPECT_TRUE(regReadString(L"COMM\\Firewall\\Rules\\InboundTovel", L"Note", &note));
    EXPECT_EQ(again, 3445u);
    EXPECT_EQ(note, text);
}

TEST(Registry, MalformedFileIsReportedAndNeverRewritten) {
    testing_support::TempUnitRoot root;
    testing_support::DebugCapture debug;
    const std::string broken = "REGEDIT4\r\n[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=bogus\r\n";
    root.writeFile(L"\\registry.reg", broken);
    HKEY key = 0;
    EXPECT_NE(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Platform", &key), 0);
    EXPECT_NE(RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Platform", &key), 0);
    EXPECT_NE(RegFlushKey(HKEY_LOCAL_MACHINE), 0);
    EXPECT_TRUE(debug.contains(L"malformed at line 3"));
    EXPECT_EQ(root.readFile(L"\\registry.reg"), broken);
}

TEST(Registry, EditsOfTheFileAreSeenAndAMalformedEditIsReportedOnce) {
    testing_support::TempUnitRoot root;
    testing_support::DebugCapture debug;
    root.writeFile(L"\\registry.reg", kUnitRegistry);
    DWORD port = 0;
    ASSERT_TRUE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &port));
    // Same size, same instant: only the bytes tell the edit apart.
    std::string edited = kUnitRegistry;
    edited.replace(edited.find("0d75"), 4, "0d76");
    root.writeFile(L"\\registry.reg", edited);
    ASSERT_TRUE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &port));
    EXPECT_EQ(port, 3446u);

    const std::string broken = "REGEDIT4\r\n[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=bogus\r\n";
    root.writeFile(L"\\registry.reg", broken);
    EXPECT_FALSE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &port));
    EXPECT_FALSE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &port));
    const auto texts = debug.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [](const std::wstring& t) {
                                return t.find(L"malformed at line 3") != std::wstring::npos;
                            }),
              1);
    EXPECT_EQ(root.readFile(L"\\registry.reg"), broken);

    root.writeFile(L"\\registry.reg", kUnitRegistry);
    EXPECT_TRUE(regReadDword(L"COMM\\Firewall\\Rules\\InboundTovel", L"Port", &port));
    EXPECT_EQ(port, 3445u);
}
