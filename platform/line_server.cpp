#include "platform/line_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace host {
namespace {

bool makeAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

LineServer::~LineServer() {
    stop();
}

bool LineServer::start(const std::string& socketPath, Handler handler, std::string& error) {
    stop();
    sockaddr_un address;
    if (!makeAddress(socketPath, address, error)) return false;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    ::unlink(socketPath.c_str());
    // Only the owner may talk to the unit's simulated hardware.
    mode_t old = ::umask(0177);
    int rc = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::umask(old);
    if (rc != 0 || ::chmod(socketPath.c_str(), 0600) != 0 || ::listen(fd, 4) != 0) {
        error = socketPath + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    // The thread blocks until a client or this stop signal comes: an idle
    // channel costs no wake-ups.
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (stopFd_ < 0) {
        error =
            std::string("cannot make the control channel's stop signal: ") + std::strerror(errno);
        ::close(fd);
        ::unlink(socketPath.c_str());
        return false;
    }
    path_ = socketPath;
    handler_ = std::move(handler);
    listenFd_ = fd;
    thread_ = CreateThread(
        [this]() -> DWORD {
            serve();
            return 0;
        },
        THREAD_PRIORITY_BELOW_NORMAL, "line-server");
    if (thread_ == NULL_HANDLE) {
        error = "cannot start the control channel thread";
        ::close(fd);
        ::close(stopFd_);
        listenFd_ = stopFd_ = -1;
        ::unlink(socketPath.c_str());
        return false;
    }
    return true;
}

void LineServer::stop() {
    if (thread_ == NULL_HANDLE) return;
    const std::uint64_t one = 1;
    while (::write(stopFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    WaitForSingleObject(thread_, INFINITE);
    CloseHandle(thread_);
    thread_ = NULL_HANDLE;
    ::close(listenFd_);
    ::close(stopFd_);
    listenFd_ = stopFd_ = -1;
    ::unlink(path_.c_str());
}

bool LineServer::awaitInput(int fd) const {
    pollfd p[2] = {{fd, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(p, 2, -1);
        if (ready < 0 && errno == EINTR) continue;
        return ready > 0 && p[1].revents == 0;
    }
}

void LineServer::serve() {
    while (awaitInput(listenFd_)) {
        int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        serveClient(client);
        ::close(client);
    }
}

void LineServer::serveClient(int fd) {
    std::string pending;
    char buffer[512];
    while (awaitInput(fd)) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) return;
        pending.append(buffer, static_cast<std::size_t>(n));
        std::size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            std::string answer;
            try {
                answer = handler_(line);
            } catch (const std::exception& e) {
                answer = std::string("error ") + e.what();
            } catch (...) {
                answer = "error internal failure";
            }
            if (!writeAll(fd, answer + "\n")) return;
        }
        if (pending.size() > kMaxLine) {
            writeAll(fd, "error line too long\n");
            return;
        }
    }
}

bool lineRequest(const std::string& socketPath, const std::string& line, std::string& reply,
                 std::string& error) {
    sockaddr_un address;
    if (!makeAddress(socketPath, address, error)) return false;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        error = socketPath + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return false;
    }
    bool ok = writeAll(fd, line + "\n");
    reply.clear();
    char c;
    while (ok) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) {
            error = "no answer from " + socketPath;
            ok = false;
            break;
        }
        ssize_t n = ::recv(fd, &c, 1, 0);
        if (n <= 0) {
            error = "the unit closed the control channel";
            ok = false;
            break;
        }
        if (c == '\n') break;
        reply += c;
    }
    ::close(fd);
    return ok;
}

}  // namespace host
