#include <gtest/gtest.h>

#include <filesystem>

#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "tests/support/test_support.h"

using namespace host;
namespace fs = std::filesystem;

TEST(PathMapping, ExistingComponentsMatchWithoutRegardToCase) {
    testing_support::TempUnitRoot root;
    fs::create_directories(root.path() + "/Flash Disk3/Orvane");
    EXPECT_EQ(mapPath(L"\\FLASH disk3\\Orvane\\TriggerWatchdog.exe"),
              root.path() + "/Flash Disk3/Orvane/TriggerWatchdog.exe");
    EXPECT_EQ(mapPath(L"\\flash disk3\\ORVANE"), root.path() + "/Flash Disk3/Orvane");
    // Missing parts keep their spelling; nothing climbs out of the root.
    EXPECT_EQ(mapPath(L"\\Program Files\\x.cof"), root.path() + "/Program Files/x.cof");
    EXPECT_EQ(mapPath(L"\\..\\..\\etc\\passwd"), root.path() + "/etc/passwd");
    // Back out of a missing folder, matching resumes.
    EXPECT_EQ(mapPath(L"\\Missing\\Deeper\\..\\..\\FLASH DISK3\\orvane"),
              root.path() + "/Flash Disk3/Orvane");
}

TEST(Files, WriteReadSeekAndSize) {
    testing_support::TempUnitRoot root;
    CreateDirectoryW(L"\\Data");
    HANDLE h = CreateFileW(L"\\data\\a.bin", GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD n = 0;
    ASSERT_TRUE(WriteFile(h, "hello", 5, &n));
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(GetFileSize(h), 5u);
    EXPECT_EQ(SetFilePointer(h, 1, FILE_BEGIN), 1u);
    char buf[8] = {};
    ASSERT_TRUE(ReadFile(h, buf, sizeof buf, &n));
    EXPECT_EQ(std::string(buf, n), "ello");
    CloseHandle(h);
    EXPECT_EQ(GetFileAttributesW(L"\\DATA"), FILE_ATTRIBUTE_DIRECTORY);
}

TEST(Files, ExclusiveWriterMakesSecondOpenerFailWithSharingViolation) {
    testing_support::TempUnitRoot root;
    HANDLE writer = CreateFileW(L"\\rf.cof", GENERIC_WRITE, 0, CREATE_ALWAYS);
    ASSERT_NE(writer, INVALID_HANDLE_VALUE);
    EXPECT_EQ(CreateFileW(L"\\RF.COF", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(CreateFileW(L"\\rf.cof", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
    CloseHandle(writer);
    HANDLE reader = CreateFileW(L"\\rf.cof", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    EXPECT_NE(reader, INVALID_HANDLE_VALUE);
    CloseHandle(reader);
}

TEST(Files, MissingFileAndBadHandleErrors) {
    testing_support::TempUnitRoot root;
    EXPECT_EQ(CreateFileW(L"\\nothing.cof", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    DWORD n;
    EXPECT_FALSE(WriteFile(0x12345678, "x", 1, &n));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetFileAttributesW(L"\\nothing"), INVALID_FILE_ATTRIBUTES);
}

TEST(Files, MoveNeverReplacesAndDeleteOfMissingFails) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\a", "A");
    root.writeFile(L"\\b", "B");
    EXPECT_FALSE(MoveFileW(L"\\a", L"\\b"));
    EXPECT_TRUE(DeleteFileW(L"\\b"));
    EXPECT_FALSE(DeleteFileW(L"\\b"));
    EXPECT_TRUE(MoveFileW(L"\\a", L"\\b"));
    EXPECT_EQ(root.readFile(L"\\b"), "A");
}

TEST(Files, ReplaceKeepsTheOldFileAsBackupAndNeedsNoTarget) {
    testing_support::TempUnitRoot root;
    root.writeFile(L"\\img", "OLD");
    root.writeFile(L"\\img.new", "NEW");
    root.writeFile(L"\\img.bak", "OLDER");
    // A reader that has the old file open goes on reading the old bytes.
    HANDLE reader = CreateFileW(L"\\IMG", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    ASSERT_NE(reader, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(ReplaceFileW(L"\\img", L"\\img.new", L"\\img.bak"));
    EXPECT_EQ(root.readFile(L"\\img"), "NEW");
    EXPECT_EQ(root.readFile(L"\\img.bak"), "OLD");
    EXPECT_EQ(GetFileAttributesW(L"\\img.new"), INVALID_FILE_ATTRIBUTES);
    char bytes[3] = {};
    DWORD n = 0;
    EXPECT_TRUE(ReadFile(reader, bytes, 3, &n));
    EXPECT_EQ(std::string(bytes, n), "OLD");
    CloseHandle(reader);

    EXPECT_FALSE(ReplaceFileW(L"\\img", L"\\img.new", nullptr));  // nothing to put in place
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    root.writeFile(L"\\first.new", "1");
    EXPECT_TRUE(ReplaceFileW(L"\\first", L"\\first.new", L"\\first.bak"));
    EXPECT_EQ(root.readFile(L"\\first"), "1");
    EXPECT_EQ(GetFileAttributesW(L"\\first.bak"), INVALID_FILE_ATTRIBUTES);
}
