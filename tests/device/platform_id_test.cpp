#include <gtest/gtest.h>

#include <string>

#include "device/platform_id.h"
#include "platform/registry.h"
#include "tests/support/test_support.h"

namespace {

class PlatformId : public ::testing::Test {
  protected:
    void SetUp() override { resetPlatformForTest(); }
    void TearDown() override { resetPlatformForTest(); }

    void writeRegistry(const std::string& platformSection) {
        root.writeFile(L"\\registry.reg", "REGEDIT4\r\n\r\n" + platformSection);
        host::reloadRegistry();
    }
    void nameIs(const std::string& name) { root.namePlatform(name); }

    testing_support::TempUnitRoot root;
};

TEST_F(PlatformId, OnlyKestrixPlatformIsKtxAnyOtherNameIsVbqIncludingNearMisses) {
    nameIs("Kestrix Platform");
    EXPECT_EQ(getPlatform(), PlatformKtx);
    for (const char* name : {"VBQ Board", "kestrix platform", "Kestrix Platform ", "Kestrix", ""}) {
        resetPlatformForTest();
        nameIs(name);
        EXPECT_EQ(getPlatform(), PlatformVbq) << '"' << name << '"';
    }
}

TEST_F(PlatformId, MissingKeyOrValueOrOverlongNameIsUnreadable) {
    for (const std::string& section :
         {std::string("[HKEY_LOCAL_MACHINE\\Other]\r\n\"Name\"=\"Kestrix Platform\"\r\n"),
          std::string("[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Model\"=\"Kestrix Platform\"\r\n"),
          "[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=\"" + std::string(600, 'K') + "\"\r\n"}) {
        resetPlatformForTest();
        writeRegistry(section);  // the last: a name too long for the buffer
        EXPECT_EQ(getPlatform(), PlatformUnreadable) << section.substr(0, 40);
    }
}

TEST_F(PlatformId, ValueTypeIsNotExamined) {
    // "Kes" as wide characters without a terminator, stored as binary.
    std::string hex;
    for (char c : std::string("Kes")) {
        wchar_t w = static_cast<wchar_t>(c);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&w);
        for (std::size_t i = 0; i < sizeof w; ++i) {
            char piece[4];
            std::snprintf(piece, sizeof piece, "%02x", bytes[i]);
            hex += (hex.empty() ? "" : ",") + std::string(piece);
        }
    }
    writeRegistry("[HKEY_LOCAL_MACHINE\\Platform]\r\n\"Name\"=hex:" + hex + "\r\n");
    EXPECT_EQ(getPlatform(), PlatformVbq);
}

// The registry is read once: its first answer stays, readable or not.
TEST_F(PlatformId, TheFirstAnswerIsKept) {
    EXPECT_EQ(getPlatform(), PlatformUnreadable);
    nameIs("Kestrix Platform");
    EXPECT_EQ(getPlatform(), PlatformUnreadable);
    resetPlatformForTest();
    EXPECT_EQ(getPlatform(), PlatformKtx);
    nameIs("Something Else");
    EXPECT_EQ(getPlatform(), PlatformKtx);
}

}  // namespace
