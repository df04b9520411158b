#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/clock.h"
#include "tests/support/test_support.h"
#include "tools/tracekit/trace_file.h"

namespace {

std::vector<std::string> lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

class TraceFileTest : public ::testing::Test {
  protected:
    std::shared_ptr<host::ManualClock> clock = std::make_shared<host::ManualClock>(5000);
    host::ScopedClock scoped{clock};
    testing_support::TempUnitRoot root;
    std::string path = root.path() + "/trace.jsonl";

    // Rem_AtomicGet of opcode 0x42, 3 payload bytes, 4 reply bytes wanted.
    const std::uint8_t request[19] = {3, 0x42, 0, 0, 3, 0, 0,    0,    0x43, 0,
                                      0, 0,    4, 0, 0, 0, 0xAA, 0xBB, 0xCC};
    ServedRequest served(std::uint32_t status) const {
        return {7, 1150000000, request, sizeof request, true, status, 4, 5010, 3};
    }
};

TEST_F(TraceFileTest, WritesSessionsAndRequestsAsJsonLines) {
    {
        tracekit::TraceFile trace(path, 1 << 20, [](std::uint32_t) { return 2; });
        clock->advance(10);
        trace.sessionStarted(7, 1150000000);
        trace.served(served(13));
        trace.sessionEnded(7, 1150000000, "closed by the client");
    }
    const auto out = lines(path);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_NE(out[0].find(R"("t_ms":10,)"), std::string::npos) << out[0];
    EXPECT_NE(out[0].find(R"("session":7,"slot":2,"serial":1150000000,"event":"start"})"),
              std::string::npos)
        << out[0];
    EXPECT_NE(
        out[1].find(
            R"("request":"AtomicGet","opcode":3,"dsp_opcode":66,"size":3,)"
            R"("reply_opcode":67,"reply_length_wanted":4,"payload":"aabbcc",)"
            R"("status":13,"status_text":"USB Comm time-out!","reply_length":4,"took_ms":3})"),
        std::string::npos)
        << out[1];
    EXPECT_NE(out[2].find(R"("event":"end","reason":"closed by the client"})"), std::string::npos)
        << out[2];
}

// A full queue never holds the session up: the records are dropped and a
// line counts them.
TEST_F(TraceFileTest, ACrowdedQueueDropsAndCounts) {
    {
        tracekit::TraceFile trace(path, 1 << 20, {}, /*queueLimit=*/0);
        for (int i = 0; i < 5; ++i) trace.served(served(0));
    }
    EXPECT_EQ(lines(path), std::vector<std::string>{R"({"dropped":5})"});
}

TEST_F(TraceFileTest, RotatesAboveItsSize) {
    tracekit::TraceFile trace(path, 1000);
    for (int i = 0; i < 10; ++i) trace.served(served(0));
    trace.flush();
    ASSERT_TRUE(std::filesystem::exists(path + ".old"));
    EXPECT_LE(std::filesystem::file_size(path), 1000u);
    EXPECT_LE(std::filesystem::file_size(path + ".old"), 1000u);
    // Like usb.log: one older file is kept, the ones before it are gone.
    EXPECT_LT(lines(path).size() + lines(path + ".old").size(), 10u);
}

}  // namespace
