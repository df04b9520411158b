// The Telnet and HTTP answers, as text and over a real loopback connection.
#include <gtest/gtest.h>

#include <string>

#include "platform/socket.h"
#include "server/alternate_answers.h"
#include "server/stream_socket.h"
#include "server/tovel_ctlr.h"

namespace {

// Year, month, day of the week, day, hour, minute, second, millisecond.
host::SYSTEMTIME sunday5Jan2020() {
    return {2020, 1, 0, 5, 9, 3, 7, 0};
}

// The responders take the controller; one without threads serves.
TovelCtlr* controller() {
    return TovelCtlr::createInstance(TovelCtlr::ThreadSet::none());
}

std::string header(const std::string& reply, const std::string& name) {
    const auto at = reply.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "<missing>";
    const auto start = at + name.size() + 4;
    return reply.substr(start, reply.find("\r\n", start) - start);
}

std::string body(const std::string& reply) {
    const auto at = reply.find("\r\n\r\n");
    return at == std::string::npos ? "<none>" : reply.substr(at + 4);
}

TEST(HttpDate, ZeroPadsEveryFieldAndNamesDayAndMonth) {
    EXPECT_EQ(httpDate(sunday5Jan2020()), "Sun, 05-Jan-2020 09:03:07 GMT");
    EXPECT_EQ(httpDate({999, 12, 6, 31, 23, 59, 0, 0}), "Sat, 31-Dec-0999 23:59:00 GMT");
}

TEST(HttpDate, OutOfRangeFieldsDoNotReadPastTheNameTables) {
    host::SYSTEMTIME t = sunday5Jan2020();
    t.wDayOfWeek = 7;
    t.wMonth = 13;
    EXPECT_EQ(httpDate(t),
              "???, 05-"
              "???"
              "-2020 09:03:07 GMT");
}

TEST(HttpReply, PlainRequestGetsTheNotice) {
    const std::string request = "GET / HTTP/1.1\r\nHost: unit\r\n\r\n";
    const std::string reply =
        httpReply(request, static_cast<int>(request.size()), sunday5Jan2020());
    EXPECT_EQ(reply,
              "HTTP/1.0 200 OK\r\n"
              "Date: Sun, 05-Jan-2020 09:03:07 GMT\r\n"
              "Expires: Sun, 05-Jan-2020 09:03:07 GMT\r\n"
              "Content-Type: text/plain\r\n"
              "Content-Length: 28\r\n"
              "\r\n"
              "Unit is in Windows GUI mode.");
}

// The script reply's headers: the end-to-end test's HTTP requests.
TEST(HttpReply, MarkerMustBeExactAndPresent) {
    const auto bodyFor = [](const std::string& request) {
        return body(httpReply(request, static_cast<int>(request.size()), sunday5Jan2020()));
    };
    EXPECT_EQ(bodyFor("GET /x.JS HTTP/1.1\r\n"), "Unit is in Windows GUI mode.");
    EXPECT_EQ(bodyFor("GET /x.js  HTTP/1.1\r\n"), "Unit is in Windows GUI mode.");
    EXPECT_EQ(bodyFor("POST /a?b=.js HTTP/1.0\r\n"), "window.location.reload(true);");
    // Only the first segment is looked at: a marker that has not come yet does not count.
    EXPECT_EQ(bodyFor("GET /x.js"), "Unit is in Windows GUI mode.");
    EXPECT_EQ(body(httpReply("", 0, sunday5Jan2020())), "Unit is in Windows GUI mode.");
}

TEST(TelnetAnswer, IsTheThirtyByteNotice) {
    EXPECT_EQ(telnetAnswer(*controller(), host::INVALID_SOCKET),
              "Unit is in Windows GUI mode.\r\n");
}

// A connected pair over loopback: the server end is what httpAnswer reads.
struct LoopbackPair {
    StreamSocket listener;
    StreamSocket server;
    host::SOCKET client = host::INVALID_SOCKET;

    LoopbackPair() {
        EXPECT_TRUE(listener.create(0));
        EXPECT_TRUE(listener.listen(1));
        client = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address =
            host::makeSockaddr(host::INADDR_LOOPBACK, host::localPort(listener.handle()));
        EXPECT_EQ(host::connect(client, reinterpret_cast<const host::SOCKADDR*>(&address),
                                sizeof address),
                  0);
        EXPECT_TRUE(listener.accept(server));
    }
    ~LoopbackPair() { host::closesocket(client); }
};

TEST(HttpAnswer, ReadsTheRequestFromTheConnection) {
    LoopbackPair pair;
    const std::string request = "GET /lib/x.js HTTP/1.1\r\n\r\n";
    ASSERT_EQ(host::send(pair.client, request.data(), static_cast<int>(request.size()), 0),
              static_cast<int>(request.size()));
    const std::string reply = httpAnswer(*controller(), pair.server.handle());
    EXPECT_EQ(body(reply), "window.location.reload(true);");
    EXPECT_EQ(header(reply, "Date"), header(reply, "Expires"));
    EXPECT_NE(header(reply, "Date"), "<missing>");
}

TEST(HttpAnswer, ClosedConnectionCountsAsAnEmptyRequest) {
    LoopbackPair pair;
    host::closesocket(pair.client);
    pair.client = host::INVALID_SOCKET;
    const std::string reply = httpAnswer(*controller(), pair.server.handle());
    EXPECT_EQ(header(reply, "Content-Length"), "28");
}

}  // namespace
