#pragma once
// A local, line-based control channel on a Unix domain socket: one command
// per line in, one answer line out. One thread of the host layer serves it,
// one client at a time; the socket file is created with mode 0600 and removed
// when the server stops. Never reachable over the network.
#include <functional>
#include <string>

#include "platform/win_types.h"

namespace host {

class LineServer {
  public:
    using Handler = std::function<std::string(const std::string& line)>;
    static constexpr std::size_t kMaxLine = 4096;

    LineServer() = default;
    ~LineServer();
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    // Binds `socketPath` (a host path; a stale socket file there is replaced)
    // and starts serving. False with a reason in `error` if it cannot.
    bool start(const std::string& socketPath, Handler handler, std::string& error);
    // Stops the thread and removes the socket file.
    void stop();
    bool running() const { return thread_ != NULL_HANDLE; }

  private:
    void serve();
    void serveClient(int fd);
    // Blocks until `fd` has input (or hangs up); false once stop() was called.
    bool awaitInput(int fd) const;

    std::string path_;
    Handler handler_;
    int listenFd_ = -1;
    int stopFd_ = -1;  // readable once stop() was called
    HANDLE thread_ = NULL_HANDLE;
};

// Client side, for tools: sends one line and answers the reply line, or
// nothing (with a reason in `error`) when the channel cannot be reached.
bool lineRequest(const std::string& socketPath, const std::string& line, std::string& reply,
                 std::string& error);

}  // namespace host
