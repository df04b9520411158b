// The board list and the port map of the tovel command line, and the unit
// it lays out.
#include <gtest/gtest.h>

#include "boards/error_log.h"
#include "server/tovel_ctlr.h"
#include "tests/support/test_support.h"
#include "tools/tovel/start_options.h"
#include "tools/tovel/unit_layout.h"

namespace {

using sim::BoardKind;
using tovelcmd::parseBoardList;
using tovelcmd::parsePortMapping;

TEST(BoardList, KindsWithDefaultAndGivenSerials) {
    std::string error;
    const auto boards = parseBoardList("t1,rf:1150000007,ip,ipg,pots", error);
    ASSERT_TRUE(boards) << error;
    ASSERT_EQ(boards->size(), 5u);
    EXPECT_EQ((*boards)[0].kind, BoardKind::T1);
    EXPECT_EQ((*boards)[0].serial, 1050000000u);
    EXPECT_EQ((*boards)[1].kind, BoardKind::RF);
    EXPECT_EQ((*boards)[1].serial, 1150000007u);
    EXPECT_EQ((*boards)[2].kind, BoardKind::IP150);
    EXPECT_EQ((*boards)[3].kind, BoardKind::IP163);
    EXPECT_EQ((*boards)[4].kind, BoardKind::Analog);
    EXPECT_EQ(parseBoardList("none", error)->size(), 0u);
}

TEST(BoardList, RepeatedKindGetsTheNextSerial) {
    std::string error;
    const auto boards = parseBoardList("t1,t1:1050000100,t1", error);
    ASSERT_TRUE(boards) << error;
    EXPECT_EQ((*boards)[0].serial, 1050000000u);
    EXPECT_EQ((*boards)[1].serial, 1050000100u);
    EXPECT_EQ((*boards)[2].serial, 1050000101u);
}

TEST(BoardList, BadListsAreRefusedWithTheReason) {
    const std::pair<const char*, const char*> cases[] = {
        {"t1,xyz", "unknown board kind \"xyz\""},
        {"", "empty board"},
        {"t1,,rf", "empty board"},
        {"T1", "unknown board kind"},
        {"rf:", "bad serial number"},
        {"rf:-1", "bad serial number"},
        {"rf:4294967296", "bad serial number"},
        {"rf:12ab", "bad serial number"},
        {"t1,t1:1050000000", "named twice"},
        {"none,t1", "unknown board kind \"none\""},
        {"t1,t1,t1,t1,t1,t1,t1,t1,t1,t1", "at most 9 boards"},
    };
    for (const auto& [list, reason] : cases) {
        std::string error;
        EXPECT_FALSE(parseBoardList(list, error)) << list;
        EXPECT_NE(error.find(reason), std::string::npos) << list << ": " << error;
    }
}

TEST(PortMap, ProgramPortToHostPort) {
    std::string error;
    const auto mapping = parsePortMapping("3445=40001", error);
    ASSERT_TRUE(mapping) << error;
    EXPECT_EQ(mapping->programPort, 3445);
    EXPECT_EQ(mapping->hostPort, 40001);
    EXPECT_EQ(parsePortMapping("80=0", error)->hostPort, 0);  // any free port
    for (const char* bad : {"3445", "=1", "0=1", "3445=", "65536=1", "23=70000", "a=b", "23=+1"})
        EXPECT_FALSE(parsePortMapping(bad, error)) << bad;
}

// A restart must find the image a client uploaded and the unit's own reset
// helper where they were.
TEST(UnitLayout, WhatExistsIsLeftAsItIs) {
    testing_support::TempUnitRoot root;
    const std::wstring image = installFolder + L"\\t1.cof";
    root.writeFile(image, "the client's image");
    root.writeFile(TovelCtlr::kResetHelper, "#!/bin/sh\n");
    const auto laidOut = tovelcmd::layOutUnit();
    ASSERT_TRUE(laidOut.ok) << laidOut.error;
    EXPECT_EQ(root.readFile(image), "the client's image");
    EXPECT_EQ(root.readFile(TovelCtlr::kResetHelper), "#!/bin/sh\n");
    EXPECT_FALSE(root.readFile(installFolder + L"\\rf.cof").empty());  // what was missing is made
    EXPECT_TRUE(tovelcmd::layOutUnit().created.empty());
}

}  // namespace
