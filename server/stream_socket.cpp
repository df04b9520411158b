#include "server/stream_socket.h"

namespace {

// Closes without disturbing the caller's view of the error that made it close.
void closeKeepingError(host::SOCKET s) {
    const int error = host::WSAGetLastError();
    host::closesocket(s);
    host::WSASetLastError(error);
}

}  // namespace

bool StreamSocket::create(std::uint16_t port) {
    close();
    host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    if (s == host::INVALID_SOCKET) return false;
    const host::SOCKADDR_IN address = host::makeSockaddr(host::INADDR_ANY, port);
    if (host::bind(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) ==
        host::SOCKET_ERROR) {
        closeKeepingError(s);
        return false;
    }
    handle_ = s;
    return true;
}

bool StreamSocket::listen(int backlog) {
    return host::listen(handle(), backlog) != host::SOCKET_ERROR;
}

bool StreamSocket::accept(StreamSocket& client) {
    host::SOCKET s = host::accept(handle(), nullptr, nullptr);
    if (s == host::INVALID_SOCKET) return false;
    client.close();
    client.handle_ = s;
    return true;
}

int StreamSocket::send(const char* data, int length) {
    return host::send(handle(), data, length, 0);
}

int StreamSocket::receive(char* buffer, int length) {
    return host::recv(handle(), buffer, length, 0);
}

bool StreamSocket::sendAll(const char* data, int length) {
    int sent = 0;
    while (sent < length) {
        const int n = send(data + sent, length - sent);
        if (n == host::SOCKET_ERROR || n <= 0) return false;
        sent += n;
    }
    return true;
}

void StreamSocket::close() {
    host::SOCKET s = handle_.exchange(host::INVALID_SOCKET);
    if (s != host::INVALID_SOCKET) host::closesocket(s);
}
