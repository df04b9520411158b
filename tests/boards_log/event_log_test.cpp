#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/last_error.h"
#include "platform/text.h"
#include "tests/support/test_support.h"

namespace fs = std::filesystem;
using testing_support::logLines;

namespace {

std::string logFile(const char* name = "usb.log") {
    return host::mapPath(logFolder) + "/" + name;
}

using testing_support::fileText;

}  // namespace

TEST(EventLog, WritesStampedUtf16LeLinesWithoutByteOrderMark) {
    testing_support::TempUnitRoot root;
    LogError(L"Boot successful (version 3.1)");
    LogError(L"");
    LogError(L"ends with newline\n");
    std::string bytes = fileText(logFile());
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_NE(bytes.substr(0, 2), std::string("\xFF\xFE", 2));
    std::wstring text =
        host::fromUtf16le(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::wregex line(
        LR"((\d\d)/(\d\d)/(\d{4}) (\d\d):(\d\d):(\d\d) Boot successful \(version 3\.1\)\r\n)"
        LR"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d \r\n)"
        LR"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d ends with newline\n\r\n)");
    EXPECT_TRUE(std::regex_match(text, line)) << host::narrow(text);
}

TEST(EventLog, CreatesTheFolderAndAppendsToAnExistingLog) {
    testing_support::TempUnitRoot root;
    EXPECT_FALSE(fs::exists(host::mapPath(logFolder)));
    LogError(L"first");
    closeLogFileForShutdown();
    LogError(L"second");
    auto lines = logLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], L"first");
    EXPECT_EQ(lines[1], L"second");
}

TEST(EventLog, RotatesOnlyAboveOneMebibyteAtTheNextSizeCheckReplacingTheOldFile) {
    testing_support::TempUnitRoot root;
    LogError(L"seed");  // opens the file; one line counted
    closeLogFileForShutdown();
    std::ofstream(logFile("usb.log.old"), std::ios::binary) << "stale";
    // Pad the file to exactly 1 MiB: not rotated.
    fs::resize_file(logFile(), eventlog::kRotateAbove);
    // With the seed, the 100th line is the 101st since the last check: the
    // file has grown beyond the limit, so it is rotated.
    for (int i = 0; i < 99; ++i) LogError(L"x");
    EXPECT_EQ(fs::file_size(logFile("usb.log.old")), 5u);
    LogError(L"x");
    EXPECT_GT(fs::file_size(logFile("usb.log.old")), eventlog::kRotateAbove);
    EXPECT_FALSE(fs::exists(logFile()));
    LogError(L"fresh");
    auto lines = logLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], L"fresh");
}

TEST(EventLog, FileOfExactlyTheLimitIsKept) {
    testing_support::TempUnitRoot root;
    LogError(L"seed");
    closeLogFileForShutdown();
    // One line is 2 * (20 + 1 + 2) = 46 bytes; leave room for exactly the 100
    // lines written before the check, so the file is exactly at the limit then.
    const std::uintmax_t lineBytes = 2 * (20 + 1 + 2);
    fs::resize_file(logFile(), eventlog::kRotateAbove - 100 * lineBytes);
    for (int i = 0; i < 100; ++i) LogError(L"y");
    EXPECT_EQ(fs::file_size(logFile()), eventlog::kRotateAbove);
    EXPECT_FALSE(fs::exists(logFile("usb.log.old")));
}

TEST(EventLog, WriteFailuresAreSwallowed) {
    testing_support::TempUnitRoot root;
    // The log folder's place is taken by a file: the folder cannot be made
    // and the open fails; every line is then lost quietly.
    root.writeFile(L"\\FlashFx Disk2\\Orvane\\Users\\Admin\\SystemLogs", "not a folder");
    for (int i = 0; i < 300; ++i) LogError(L"lost");
    EXPECT_EQ(root.readFile(logFolder), "not a folder");
}

TEST(EventLog, ConcurrentWritersNeverInterleaveALine) {
    testing_support::TempUnitRoot root;
    // About 12 MB of UTF-16: the log rotates many times, and what is left in
    // usb.log.old and usb.log is a tail of each writer's lines.
    constexpr int kThreads = 4;
    constexpr int kLines = 20000;
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                LogError(
                    host::wformat(L"writer %d line %06d of a reasonably long message body", t, i));
        });
    for (auto& w : writers) w.join();
    auto lines = logLines(true);
    int next[kThreads] = {};
    std::size_t whole = 0;
    std::wregex shape(LR"(writer (\d) line (\d{6}) of a reasonably long message body)");
    for (const auto& line : lines) {
        std::wsmatch m;
        if (!std::regex_match(line, m, shape)) continue;
        int t = std::stoi(m[1].str());
        int i = std::stoi(m[2].str());
        EXPECT_GE(i, next[t]) << "lines of one writer stay in order";
        next[t] = i + 1;
        ++whole;
    }
    EXPECT_EQ(whole, lines.size()) << "every line decodes whole";
    // Rotation drops whole files only: the two files hold more than one
    // rotation's worth of lines, and the last writer to finish kept its last line.
    EXPECT_GT(whole, 5000u);
    EXPECT_TRUE(std::any_of(std::begin(next), std::end(next), [](int n) { return n == kLines; }));
}

TEST(FormatError, DescribesTheLastErrorAndResetsIt) {
    host::SetLastError(1167);
    EXPECT_EQ(FormatError(), L"The device is not connected.\r\n");
    EXPECT_EQ(host::GetLastError(), 0u);
    host::SetLastError(4242);
    EXPECT_EQ(FormatError(),
              L"Unable to get error string for 4242 (FormatError fails due to error #317)!");
}
