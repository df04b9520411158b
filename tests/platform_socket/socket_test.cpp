#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/socket.h"
#include "tests/support/waiting.h"

using namespace host;

namespace {

// A listening socket on the loopback address and an ephemeral port.
struct Listener {
    SOCKET s = INVALID_SOCKET;
    std::uint16_t port = 0;
    explicit Listener(std::uint16_t programPort = 0, std::uint32_t address = INADDR_LOOPBACK) {
        s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        SOCKADDR_IN sa = makeSockaddr(address, programPort);
        EXPECT_EQ(bind(s, reinterpret_cast<SOCKADDR*>(&sa), sizeof sa), 0) << WSAGetLastError();
        EXPECT_EQ(listen(s, 1), 0);
        port = localPort(s);
    }
    ~Listener() {
        if (s != INVALID_SOCKET) closesocket(s);
    }
};

int connectTo(SOCKET s, std::uint16_t port) {
    SOCKADDR_IN sa = makeSockaddr(INADDR_LOOPBACK, port);
    return connect(s, reinterpret_cast<SOCKADDR*>(&sa), sizeof sa);
}

// A connected pair: client side and the accepted server side.
struct Pair {
    Listener listener;
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;
    Pair() {
        client = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connectTo(client, listener.port), 0) << WSAGetLastError();
        server = accept(listener.s, nullptr, nullptr);
        EXPECT_NE(server, INVALID_SOCKET);
    }
    // Closes the client with a reset instead of an orderly end.
    void resetClient() {
        LINGER abort{1, 0};
        setsockopt(client, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort),
                   sizeof abort);
        closesocket(client);
        client = INVALID_SOCKET;
    }
    ~Pair() {
        if (client != INVALID_SOCKET) closesocket(client);
        if (server != INVALID_SOCKET) closesocket(server);
    }
};

std::uint16_t unusedPort() {
    Listener l;
    return l.port;  // closed again when l goes
}

}  // namespace

TEST(Socket, RefusedConnectAnswersWsaeconnrefused) {
    const std::uint16_t port = unusedPort();
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(connectTo(s, port), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10061);
    closesocket(s);
}

TEST(Socket, CarriesBytesBothWaysAndNamesThePeer) {
    Listener listener;
    SOCKET client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connectTo(client, listener.port), 0);
    SOCKADDR_IN peer{};
    int peerLength = sizeof peer;
    SOCKET server = accept(listener.s, reinterpret_cast<SOCKADDR*>(&peer), &peerLength);
    ASSERT_NE(server, INVALID_SOCKET);
    EXPECT_EQ(inet_ntoa(peer.sin_addr), "127.0.0.1");
    EXPECT_EQ(peer.sin_family, AF_INET);
    EXPECT_EQ(ntohs(peer.sin_port), localPort(client));

    EXPECT_EQ(send(client, "hello", 5, 0), 5);
    char buffer[16] = {};
    int got = 0;
    while (got < 5) {
        int n = recv(server, buffer + got, sizeof buffer - got, 0);
        ASSERT_GT(n, 0);
        got += n;
    }
    EXPECT_EQ(std::string(buffer, 5), "hello");
    EXPECT_EQ(send(server, "ok", 2, 0), 2);
    EXPECT_EQ(recv(client, buffer, 2, 0), 2);
    closesocket(client);
    closesocket(server);
}

TEST(Socket, PeerResetGivesWsaeconnreset) {
    Pair p;
    p.resetClient();
    char c;
    EXPECT_EQ(recv(p.server, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10054);
}

TEST(Socket, SendingToAVanishedPeerFailsWithoutSignal) {
    Pair p;
    p.resetClient();
    std::string block(4096, 'x');
    int result = 0;
    for (int i = 0; i < 100 && result != SOCKET_ERROR; ++i)
        result = send(p.server, block.data(), static_cast<int>(block.size()), 0);
    EXPECT_EQ(result, SOCKET_ERROR);  // and the process is still here: no SIGPIPE
    EXPECT_EQ(WSAGetLastError(), 10054);
}

TEST(Socket, ReceiveTimeoutAnswersWsaetimedout) {
    Pair p;
    DWORD ms = 30;
    ASSERT_EQ(setsockopt(p.server, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms),
                         sizeof ms),
              0);
    char c;
    EXPECT_EQ(recv(p.server, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10060);
}

TEST(Socket, ClosingUnderABlockedReceiveInterruptsIt) {
    Pair p;
    std::atomic<int> result{1};
    std::atomic<int> error{0};
    std::thread reader([&] {
        char c;
        result = recv(p.server, &c, 1, 0);
        error = WSAGetLastError();
    });
    ASSERT_TRUE(testing_support::eventually([&] { return callsInProgressForTest(p.server) == 1; }));
    EXPECT_EQ(closesocket(p.server), 0);
    reader.join();
    p.server = INVALID_SOCKET;
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, static_cast<int>(WSAEINTR));
}

TEST(Socket, ClosingUnderABlockedAcceptInterruptsIt) {
    auto listener = std::make_unique<Listener>();
    std::atomic<SOCKET> accepted{0};
    std::atomic<int> error{0};
    std::thread acceptor([&] {
        accepted = accept(listener->s, nullptr, nullptr);
        error = WSAGetLastError();
    });
    ASSERT_TRUE(
        testing_support::eventually([&] { return callsInProgressForTest(listener->s) == 1; }));
    EXPECT_EQ(closesocket(listener->s), 0);
    listener->s = INVALID_SOCKET;
    acceptor.join();
    EXPECT_EQ(accepted, INVALID_SOCKET);
    EXPECT_EQ(error, static_cast<int>(WSAEINTR));
}

TEST(Socket, ClosedAndUnknownHandlesAreNotSockets) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(closesocket(s), 0);
    char c;
    EXPECT_EQ(recv(s, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10038);
    EXPECT_EQ(closesocket(s), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10038);
    EXPECT_EQ(send(12345, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10038);
    // A new socket never takes a closed one's handle.
    SOCKET t = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_NE(t, s);
    closesocket(t);
}

TEST(Socket, SecondListenerOnAPortAnswersWsaeaddrinuse) {
    Listener first;
    SOCKET second = socket(AF_INET, SOCK_STREAM, 0);
    SOCKADDR_IN sa = makeSockaddr(INADDR_LOOPBACK, first.port);
    EXPECT_EQ(bind(second, reinterpret_cast<SOCKADDR*>(&sa), sizeof sa), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10048);
    closesocket(second);
}

TEST(Socket, AListeningPortCanBeBoundAgainRightAfterItsConnectionsClosed) {
    std::uint16_t port;
    {
        Pair p;
        port = p.listener.port;
        closesocket(p.server);  // the server closes first, so its side lingers in TIME_WAIT
        p.server = INVALID_SOCKET;
        char c;
        recv(p.client, &c, 1, 0);
    }
    Listener again(port);
    EXPECT_EQ(again.port, port);
}

TEST(Socket, ShutdownOfSendingAnswersWsaeshutdownAndThePeerSeesTheEnd) {
    Pair p;
    ASSERT_EQ(shutdown(p.client, SD_SEND), 0);
    EXPECT_EQ(send(p.client, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10058);
    char c;
    EXPECT_EQ(recv(p.server, &c, 1, 0), 0);
}

TEST(Socket, UnconnectedSocketsAndBadArgumentsAreRefused) {
    EXPECT_EQ(socket(99, SOCK_STREAM, 0), INVALID_SOCKET);
    EXPECT_NE(WSAGetLastError(), 0);
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    char c;
    EXPECT_EQ(recv(s, &c, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10057);
    EXPECT_EQ(recv(s, nullptr, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10014);
    EXPECT_EQ(shutdown(s, 7), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10022);
    SOCKADDR_IN sa = makeSockaddr(INADDR_LOOPBACK, 0);
    EXPECT_EQ(bind(s, reinterpret_cast<SOCKADDR*>(&sa), 4), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), 10014);
    closesocket(s);
}

TEST(Socket, SelectReadSeesDataAndTimesOut) {
    Pair p;
    EXPECT_EQ(selectRead(p.server, 0), 0);
    EXPECT_EQ(selectRead(p.server, 10), 0);
    send(p.client, "x", 1, 0);
    EXPECT_EQ(selectRead(p.server, 1000), 1);
    // A pending client makes a listener readable.
    SOCKET other = socket(AF_INET, SOCK_STREAM, 0);
    connectTo(other, p.listener.port);
    EXPECT_EQ(selectRead(p.listener.s, 1000), 1);
    closesocket(other);
}

TEST(SocketPortMap, BindsTheMappedHostPortInstead) {
    const std::uint16_t free = unusedPort();
    setPortMap(23, free);
    EXPECT_EQ(mappedPort(23), free);
    EXPECT_EQ(mappedPort(80), 80);
    Listener telnet(23, INADDR_ANY);
    EXPECT_EQ(telnet.port, free);
    EXPECT_EQ(boundHostPort(23), free);
    SOCKET client = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connectTo(client, free), 0);
    closesocket(client);
}

TEST(SocketPortMap, PortZeroBindsAnyFreePortAndTellsWhichOne) {
    setPortMap(3445, 0);
    EXPECT_FALSE(boundHostPort(3445).has_value());
    Listener ear(3445, INADDR_ANY);
    ASSERT_TRUE(boundHostPort(3445).has_value());
    EXPECT_EQ(*boundHostPort(3445), ear.port);
    EXPECT_NE(ear.port, 0);
    clearPortMap();
    EXPECT_EQ(mappedPort(3445), 3445);
    EXPECT_FALSE(boundHostPort(3445).has_value());
}

TEST(Socket, AddressTexts) {
    EXPECT_EQ(inet_addr("127.0.0.1"), htonl(INADDR_LOOPBACK));
    EXPECT_EQ(inet_addr("not an address"), INADDR_NONE);
    EXPECT_EQ(inet_ntoa(IN_ADDR{htonl(0x0a000102)}), "10.0.1.2");
    auto local = resolveHost("localhost");
    ASSERT_TRUE(local.has_value());
    EXPECT_EQ(ntohl(local->s_addr) >> 24, 127u);
    EXPECT_FALSE(resolveHost("no-such-host.invalid").has_value());
}

TEST(Socket, NoSocketOutlivesItsClose) {
    const std::size_t before = openSocketCountForTest();
    {
        Pair p;
        EXPECT_EQ(openSocketCountForTest(), before + 3);
    }
    EXPECT_EQ(openSocketCountForTest(), before);
}
