#include "tests/server_session/session_fixture.h"

#include "tests/support/waiting.h"

namespace sessiontest {

SessionTest::SessionTest() {
    acceptAnyCofVersion = true;
}

SessionTest::~SessionTest() {
    endSession();
}

void SessionTest::closeClient() {
    if (client != host::INVALID_SOCKET) host::closesocket(client);
    client = host::INVALID_SOCKET;
}

void SessionTest::endSession() {
    closeClient();
    if (!session) return;
    session->stop();
    EXPECT_TRUE(waitUntilDone());
    // A session whose thread was abandoned (reported hung) is still held by
    // that thread until it returns from its receive; the registry is reset
    // after this, and must not delete the board it still pins.
    std::weak_ptr<Tovel> held = session;
    session.reset();
    EXPECT_TRUE(testing_support::eventually([&] { return held.expired(); }));
}

void SessionTest::startSession(std::initializer_list<sim::BoardKind> kinds) {
    for (auto kind : kinds) boards.push_back(attach(kind));
    UsbCtlr::EnumDevices(false, true, false);
    ASSERT_GE(UsbCtlr::GetCtlrCount(), 1);
    ctlr = UsbCtlr::GetCtlr(0);

    host::SOCKET listener = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    auto address = host::makeSockaddr(host::INADDR_LOOPBACK, 0);
    ASSERT_EQ(host::bind(listener, reinterpret_cast<host::SOCKADDR*>(&address), sizeof address), 0);
    ASSERT_EQ(host::listen(listener, 1), 0);
    auto target = host::makeSockaddr(host::INADDR_LOOPBACK, host::localPort(listener));
    client = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    ASSERT_EQ(host::connect(client, reinterpret_cast<host::SOCKADDR*>(&target), sizeof target), 0);
    host::SOCKET accepted = host::accept(listener, nullptr, nullptr);
    host::closesocket(listener);
    ASSERT_NE(accepted, host::INVALID_SOCKET);
    DWORD timeout = 5000;
    host::setsockopt(client, host::SOL_SOCKET, host::SO_RCVTIMEO,
                     reinterpret_cast<const char*>(&timeout), sizeof timeout);
    session = Tovel::create(ctlr, accepted, &owner);
}

void SessionTest::send(const Bytes& bytes) {
    ASSERT_EQ(host::send(client, reinterpret_cast<const char*>(bytes.data()),
                         static_cast<int>(bytes.size()), 0),
              static_cast<int>(bytes.size()));
}

Bytes SessionTest::receive(std::size_t n) {
    Bytes out(n);
    std::size_t got = 0;
    while (got < n) {
        int r = host::recv(client, reinterpret_cast<char*>(out.data()) + got,
                           static_cast<int>(n - got), 0);
        if (r <= 0) {
            ADD_FAILURE() << "connection gave " << r << " after " << got << " of " << n << " bytes";
            out.resize(got);
            return out;
        }
        got += static_cast<std::size_t>(r);
    }
    return out;
}

bool SessionTest::quietFor(DWORD ms) {
    return host::selectRead(client, ms) == 0;
}

bool SessionTest::waitUntilDone() {
    return testing_support::eventually(
        [&] { return !session->running() && session->isDoneOrHung(); });
}

}  // namespace sessiontest
