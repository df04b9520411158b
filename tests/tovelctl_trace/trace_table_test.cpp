#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tools/tovelctl/trace_table.h"

namespace {

constexpr const char* kTrace =
    R"({"t_ms":5,"wall":"w","session":1,"slot":1,"serial":11,"event":"start"}
{"t_ms":6,"wall":"w","session":1,"slot":1,"serial":11,"request":"AtomicGet","opcode":3,"dsp_opcode":126,"size":2,"payload":"beef","status":0,"status_text":"success","reply_length":2,"took_ms":0}
{"t_ms":7,"wall":"w","session":2,"slot":2,"serial":12,"request":"PrimSend","opcode":0,"device":1,"dsp_opcode":5,"size":0,"payload":"","took_ms":0}
{"dropped":3}
{"t_ms":9,"wall":"w","session":2,"slot":2,"serial":12,"request":"GetStatus","opcode":2,"device":0,"dsp_opcode":0,"size":0,"payload":"","status":13,"status_text":"USB Comm time-out!","reply_length":65,"took_ms":5000}
)";

std::string run(const tovelctl::TraceFilter& filter, bool json, const std::string& text = kTrace) {
    std::istringstream in(text);
    std::ostringstream out;
    std::string error;
    EXPECT_TRUE(tovelctl::printTrace(in, "t.jsonl", filter, json, out, error)) << error;
    return out.str();
}

TEST(TraceTable, FiltersBySessionAndStatus) {
    tovelctl::TraceFilter nonzero;
    ASSERT_TRUE(tovelctl::parseStatusFilter("nonzero", nonzero));
    const std::string failed = run(nonzero, true);
    EXPECT_EQ(std::count(failed.begin(), failed.end(), '\n'), 1) << failed;
    EXPECT_NE(failed.find("\"status\":13"), std::string::npos);

    tovelctl::TraceFilter zero;
    ASSERT_TRUE(tovelctl::parseStatusFilter("0", zero));
    EXPECT_NE(run(zero, true).find("AtomicGet"), std::string::npos);

    tovelctl::TraceFilter session2;
    session2.session = 2;
    const std::string two = run(session2, true);
    EXPECT_EQ(two.find("\"session\":1"), std::string::npos) << two;
    EXPECT_NE(two.find("PrimSend"), std::string::npos);

    tovelctl::TraceFilter bad;
    EXPECT_FALSE(tovelctl::parseStatusFilter("-1", bad));
    EXPECT_FALSE(tovelctl::parseStatusFilter("some", bad));
}

TEST(TraceTable, PrintsOneRowPerLine) {
    const std::string table = run({}, false);
    EXPECT_NE(table.find("session 1 start (slot 1, serial 11)"), std::string::npos) << table;
    EXPECT_NE(table.find("PrimSend"), std::string::npos);
    EXPECT_NE(table.find("(no reply)"), std::string::npos);
    EXPECT_NE(table.find("--- 3 records dropped"), std::string::npos);
    EXPECT_NE(table.find("13 USB Comm time-out!"), std::string::npos);
}

TEST(TraceTable, ALineThatIsNoRecordIsNamed) {
    std::istringstream in(std::string(kTrace) + "{\"x\":1}\n");
    std::ostringstream out;
    std::string error;
    EXPECT_FALSE(tovelctl::printTrace(in, "t.jsonl", {}, false, out, error));
    EXPECT_EQ(error, "t.jsonl:6: not a trace record");
}

}  // namespace
