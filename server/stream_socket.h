#pragma once
// A TCP stream socket object in the manner of the platform's socket class:
// create (and bind), listen, accept into a fresh object, send, receive,
// detach the handle, close. The object owns its handle and closes it when
// destroyed, unless the handle was detached.
#include <atomic>
#include <cstdint>

#include "platform/socket.h"

class StreamSocket {
  public:
    StreamSocket() = default;
    ~StreamSocket() { close(); }
    StreamSocket(const StreamSocket&) = delete;
    StreamSocket& operator=(const StreamSocket&) = delete;

    // A TCP stream socket bound to `port` on every local address. False with
    // the socket error kept for WSAGetLastError (and no socket left open).
    bool create(std::uint16_t port);
    bool listen(int backlog);
    // Blocks until a client connects; the connection goes to `client`, which
    // must be fresh. False with the socket error kept.
    bool accept(StreamSocket& client);

    // One send or one receive, with the socket layer's answers.
    int send(const char* data, int length);
    int receive(char* buffer, int length);
    // Sends all of `length` bytes, each send continuing where the previous one
    // stopped; false when a send fails.
    bool sendAll(const char* data, int length);

    host::SOCKET handle() const { return handle_.load(); }
    // Gives up ownership of the handle and answers it.
    host::SOCKET detach() { return handle_.exchange(host::INVALID_SOCKET); }
    // Closes the socket (if any); safe from another thread, which makes a
    // blocked accept or receive return with an error.
    void close();

  private:
    std::atomic<host::SOCKET> handle_{host::INVALID_SOCKET};
};
