#include <gtest/gtest.h>

#include <numeric>

#include "tests/tovelctl/fake_controller.h"
#include "tools/tovelclient/tovel_client.h"

using namespace tovelclient;
using Bytes = std::vector<std::uint8_t>;

// Version and status are read through the tovelctl tests; the board count only here.
TEST(Client, ReadsTheBoardCount) {
    FakeController fake;
    Client client("127.0.0.1", fake.port());
    EXPECT_EQ(boardCountOf(client.enumBoards()), 2u);
}
TEST(Client, CofDownloadSendsTheImageInPiecesBetweenStartAndEnd) {
    FakeController fake;
    Client client("127.0.0.1", fake.port());
    Bytes image(20000);
    std::iota(image.begin(), image.end(), 0);
    std::vector<std::pair<Client::CofStep, std::size_t>> seen;
    client.cofDownload(
        image, [&](Client::CofStep step, const Reply& r, std::size_t sent, std::size_t total) {
            EXPECT_EQ(r.status, 0u);
            EXPECT_EQ(total, image.size());
            seen.emplace_back(step, sent);
        });
    EXPECT_EQ(fake.cofFile(), image);
    ASSERT_EQ(seen.size(), 5u);  // start, 8192, 16384, 20000, end
    EXPECT_EQ(seen[0], std::make_pair(Client::CofStep::Start, std::size_t{0}));
    EXPECT_EQ(seen[1].second, 8192u);
    EXPECT_EQ(seen[3].second, 20000u);
    EXPECT_EQ(seen[4].first, Client::CofStep::End);
    EXPECT_THROW(client.cofDownload(image, {}, 9985), ClientError);
}

// A refused connection is the tovelctl test's; a name that does not resolve is this one.
TEST(Client, UnknownHostIsAClientError) {
    EXPECT_THROW(Client("no-such-host.invalid", 3445), ClientError);
}
TEST(Client, ImpossibleReplyLengthIsRefusedNotAwaited) {
    FakeController fake;
    fake.answerBogusLength();
    Client client("127.0.0.1", fake.port(), 5000);
    try {
        client.version();
        FAIL();
    } catch (const ClientError& e) {
        EXPECT_NE(std::string(e.what()).find("100000"), std::string::npos) << e.what();
    }
}

TEST(Client, SilentServerTimesOut) {
    FakeController fake;
    fake.stayQuiet();
    Client client("127.0.0.1", fake.port(), 50);
    try {
        client.version();
        FAIL();
    } catch (const ClientError& e) {
        EXPECT_EQ(e.socketError(), 10060);
    }
}

TEST(ClientText, HexAndStatusTexts) {
    EXPECT_EQ(parseHex("0A0b0C"), (Bytes{0x0a, 0x0b, 0x0c}));
    EXPECT_EQ(parseHex("0x0a 0b:0c-0d,0e"), (Bytes{0x0a, 0x0b, 0x0c, 0x0d, 0x0e}));
    EXPECT_EQ(parseHex(""), Bytes{});
    EXPECT_FALSE(parseHex("abc").has_value());
    EXPECT_FALSE(parseHex("zz").has_value());
    EXPECT_EQ(toHex(Bytes{0xed, 0x02}, " "), "ed 02");
    EXPECT_EQ(describeStatus(0), "0 (success)");
    EXPECT_EQ(describeStatus(15), "15 (Wrong COF Version! / Wrong COF Version!)");
    EXPECT_EQ(describeStatus(4), "4 (No Error! / Unknown or Not a DSP Error!)");
}
