#include "platform/socket.h"

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/last_error.h"
#include "platform/no_destructor.h"

namespace host {
namespace {

// The Winsock values that this file translates, named here because the POSIX
// headers below define the same names as macros with other values.
constexpr int kWsAfInet = AF_INET;
constexpr int kWsSockStream = SOCK_STREAM;
constexpr int kWsIpprotoTcp = IPPROTO_TCP;
constexpr int kWsSolSocket = SOL_SOCKET;
constexpr int kWsReuseAddr = SO_REUSEADDR;
constexpr int kWsKeepAlive = SO_KEEPALIVE;
constexpr int kWsLinger = SO_LINGER;
constexpr int kWsSndTimeo = SO_SNDTIMEO;
constexpr int kWsRcvTimeo = SO_RCVTIMEO;
constexpr int kWsTcpNoDelay = TCP_NODELAY;
constexpr std::uint32_t kWsInaddrNone = INADDR_NONE;

constexpr std::uint16_t toNet16(std::uint16_t v) {
    return htons(v);
}
constexpr std::uint32_t toNet32(std::uint32_t v) {
    return htonl(v);
}

}  // namespace

SOCKADDR_IN makeSockaddr(std::uint32_t address, std::uint16_t port) {
    SOCKADDR_IN sa{};
    sa.sin_family = static_cast<std::int16_t>(kWsAfInet);
    sa.sin_port = toNet16(port);
    sa.sin_addr.s_addr = toNet32(address);
    return sa;
}

}  // namespace host

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

namespace host {
namespace {

// Winsock codes that win_types.h does not name.
constexpr DWORD kWsaEAlready = 10037;
constexpr DWORD kWsaENoProtoOpt = 10042;
constexpr DWORD kWsaEProtoNoSupport = 10043;
constexpr DWORD kWsaEOpNotSupp = 10045;
constexpr DWORD kWsaEAfNoSupport = 10047;

DWORD wsaErrorFromErrno(int e) {
    switch (e) {
        case EAGAIN:
            return WSAEWOULDBLOCK;  // EWOULDBLOCK is the same number
        case EINTR:
            return WSAEINTR;
        case EBADF:
        case ENOTSOCK:
            return WSAENOTSOCK;
        case EFAULT:
            return WSAEFAULT;
        case EINVAL:
            return WSAEINVAL;
        case EMFILE:
        case ENFILE:
            return WSAEMFILE;
        case EACCES:
        case EPERM:
            return WSAEACCES;
        case EINPROGRESS:
            return WSAEINPROGRESS;
        case EALREADY:
            return kWsaEAlready;
        case EMSGSIZE:
            return WSAEMSGSIZE;
        case ENOPROTOOPT:
            return kWsaENoProtoOpt;
        case EPROTONOSUPPORT:
            return kWsaEProtoNoSupport;
        case EOPNOTSUPP:
            return kWsaEOpNotSupp;
        case EAFNOSUPPORT:
            return kWsaEAfNoSupport;
        case EADDRINUSE:
            return WSAEADDRINUSE;
        case EADDRNOTAVAIL:
            return WSAEADDRNOTAVAIL;
        case ENETDOWN:
            return WSAENETDOWN;
        case ENETUNREACH:
            return WSAENETUNREACH;
        case ENETRESET:
            return WSAENETRESET;
        case ECONNABORTED:
            return WSAECONNABORTED;
        case ECONNRESET:
        case EPIPE:
            return WSAECONNRESET;
        case ENOBUFS:
        case ENOMEM:
            return WSAENOBUFS;
        case EISCONN:
            return WSAEISCONN;
        case ENOTCONN:
            return WSAENOTCONN;
        case ESHUTDOWN:
            return WSAESHUTDOWN;
        case ETIMEDOUT:
            return WSAETIMEDOUT;
        case ECONNREFUSED:
            return WSAECONNREFUSED;
        case EHOSTUNREACH:
        case EHOSTDOWN:
            return WSAEHOSTUNREACH;
        default:
            return WSAEINVAL;
    }
}

int fail(DWORD code) {
    SetLastError(code);
    return SOCKET_ERROR;
}

SOCKET failSocket(DWORD code) {
    SetLastError(code);
    return INVALID_SOCKET;
}

struct SocketObject {
    explicit SocketObject(int descriptor) : fd(descriptor) {}
    ~SocketObject() { ::close(fd); }
    SocketObject(const SocketObject&) = delete;
    SocketObject& operator=(const SocketObject&) = delete;

    const int fd;
    std::atomic<bool> closed{false};
    std::atomic<bool> sendShut{false};
    std::atomic<bool> receiveShut{false};
    int busy = 0;  // calls in progress; guarded by the table's mutex
};

struct Table {
    std::mutex mutex;
    std::unordered_map<SOCKET, std::shared_ptr<SocketObject>> sockets;
    SOCKET next = 0x100;  // handles are never reused, so a stale one stays invalid
    std::map<std::uint16_t, std::uint16_t> portMap;
    std::map<std::uint16_t, std::uint16_t> bound;
};

Table& table() {
    static NoDestructor<Table> t;
    return *t;
}

SOCKET addSocket(int fd) {
    auto object = std::make_shared<SocketObject>(fd);
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    SOCKET s = t.next;
    t.next += 4;
    t.sockets.emplace(s, std::move(object));
    return s;
}

// A socket held by one call. Keeps the object (and its descriptor) alive and
// counts the call, so closesocket knows it must wake it.
class InUse {
  public:
    explicit InUse(SOCKET s) {
        auto& t = table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.sockets.find(s);
        if (it == t.sockets.end()) return;
        object_ = it->second;
        ++object_->busy;
    }
    ~InUse() {
        if (!object_) return;
        std::lock_guard<std::mutex> lock(table().mutex);
        --object_->busy;
    }
    InUse(const InUse&) = delete;
    InUse& operator=(const InUse&) = delete;

    explicit operator bool() const { return object_ != nullptr; }
    SocketObject* operator->() const { return object_.get(); }
    int fd() const { return object_->fd; }
    bool interrupted() const { return object_->closed.load(); }

    // The Winsock error for the errno of a failed call on this socket.
    int failWith(int e) const {
        if (interrupted()) return fail(WSAEINTR);
        if (e == EPIPE && object_->sendShut) return fail(WSAESHUTDOWN);
        return fail(wsaErrorFromErrno(e));
    }

  private:
    std::shared_ptr<SocketObject> object_;
};

bool readSockaddr(const SOCKADDR* name, int nameLength, sockaddr_in& out) {
    if (name == nullptr || nameLength < static_cast<int>(sizeof(SOCKADDR_IN))) return false;
    SOCKADDR_IN in;
    std::memcpy(&in, name, sizeof in);
    if (in.sin_family != kWsAfInet) return false;
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = in.sin_port;
    out.sin_addr.s_addr = in.sin_addr.s_addr;
    return true;
}

int writeSockaddr(const sockaddr_in& in, SOCKADDR* name, int* nameLength) {
    if (name == nullptr && nameLength == nullptr) return 0;
    if (name == nullptr || nameLength == nullptr ||
        *nameLength < static_cast<int>(sizeof(SOCKADDR_IN)))
        return fail(WSAEFAULT);
    SOCKADDR_IN out{};
    out.sin_family = static_cast<std::int16_t>(kWsAfInet);
    out.sin_port = in.sin_port;
    out.sin_addr.s_addr = in.sin_addr.s_addr;
    std::memcpy(name, &out, sizeof out);
    *nameLength = static_cast<int>(sizeof(SOCKADDR_IN));
    return 0;
}

std::uint16_t portOf(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

timeval toTimeval(DWORD ms) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return tv;
}

}  // namespace

int WSAStartup(WORD versionRequested, WSADATA* data) {
    if (data != nullptr) {
        *data = WSADATA{};
        data->wVersion = versionRequested;
        data->wHighVersion = MAKEWORD(2, 2);
        std::strcpy(data->szDescription, "Tovel host sockets");
        std::strcpy(data->szSystemStatus, "Running");
    }
    return 0;
}

int WSACleanup() {
    return 0;
}

int WSAGetLastError() {
    return static_cast<int>(GetLastError());
}
void WSASetLastError(int code) {
    SetLastError(static_cast<DWORD>(code));
}

SOCKET socket(int af, int type, int protocol) {
    if (af != kWsAfInet) return failSocket(kWsaEAfNoSupport);
    if (type != kWsSockStream) return failSocket(kWsaEOpNotSupp);
    if (protocol != 0 && protocol != kWsIpprotoTcp) return failSocket(kWsaEProtoNoSupport);
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) return failSocket(wsaErrorFromErrno(errno));
    return addSocket(fd);
}

int bind(SOCKET s, const SOCKADDR* name, int nameLength) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    sockaddr_in sa{};
    if (!readSockaddr(name, nameLength, sa)) return fail(WSAEFAULT);
    const std::uint16_t programPort = ntohs(sa.sin_port);
    sa.sin_port = htons(mappedPort(programPort));
    // Linux refuses to bind a port while old connections on it wait out
    // TIME_WAIT; the original stack does not, and the listener is closed and
    // opened again on the same port between clients.
    int one = 1;
    ::setsockopt(sock.fd(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(sock.fd(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0)
        return sock.failWith(errno);
    const std::uint16_t actual = portOf(sock.fd());
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.bound[programPort] = actual;
    return 0;
}

int listen(SOCKET s, int backlog) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    if (::listen(sock.fd(), backlog) != 0) return sock.failWith(errno);
    return 0;
}

SOCKET accept(SOCKET s, SOCKADDR* address, int* addressLength) {
    InUse sock(s);
    if (!sock) return failSocket(WSAENOTSOCK);
    if (address != nullptr &&
        (addressLength == nullptr || *addressLength < static_cast<int>(sizeof(SOCKADDR_IN))))
        return failSocket(WSAEFAULT);
    for (;;) {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        int fd = ::accept4(sock.fd(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
        if (fd >= 0) {
            if (sock.interrupted()) {
                ::close(fd);
                return failSocket(WSAEINTR);
            }
            SOCKET client = addSocket(fd);
            if (address != nullptr) writeSockaddr(peer, address, addressLength);
            return client;
        }
        int e = errno;
        if (e == EINTR && !sock.interrupted()) continue;
        sock.failWith(e);
        return INVALID_SOCKET;
    }
}

int connect(SOCKET s, const SOCKADDR* name, int nameLength) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    sockaddr_in sa{};
    if (!readSockaddr(name, nameLength, sa)) return fail(WSAEFAULT);
    if (::connect(sock.fd(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) == 0) return 0;
    int e = errno;
    if (e != EINTR || sock.interrupted()) return sock.failWith(e);
    // An interrupted connect goes on in the background: wait for its outcome.
    pollfd p{sock.fd(), POLLOUT, 0};
    while (::poll(&p, 1, -1) < 0 && errno == EINTR && !sock.interrupted()) {
    }
    int soError = 0;
    socklen_t len = sizeof soError;
    ::getsockopt(sock.fd(), SOL_SOCKET, SO_ERROR, &soError, &len);
    return soError == 0 ? 0 : sock.failWith(soError);
}

int send(SOCKET s, const char* buffer, int length, int flags) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    if (flags != 0) return fail(kWsaEOpNotSupp);
    if (length < 0) return fail(WSAEINVAL);
    if (buffer == nullptr && length > 0) return fail(WSAEFAULT);
    if (sock->sendShut) return fail(WSAESHUTDOWN);
    int sent = 0;
    while (sent < length) {
        ssize_t n =
            ::send(sock.fd(), buffer + sent, static_cast<std::size_t>(length - sent), MSG_NOSIGNAL);
        if (n >= 0) {
            sent += static_cast<int>(n);
            continue;
        }
        int e = errno;
        if (e == EINTR && !sock.interrupted()) continue;
        if (sent > 0 && !sock.interrupted()) return sent;
        // On a blocking socket "would block" can only mean SO_SNDTIMEO expired.
        if (e == EAGAIN && !sock.interrupted()) return fail(WSAETIMEDOUT);
        return sock.failWith(e);
    }
    return sent;
}

int recv(SOCKET s, char* buffer, int length, int flags) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    if (flags != 0) return fail(kWsaEOpNotSupp);
    if (length < 0) return fail(WSAEINVAL);
    if (buffer == nullptr && length > 0) return fail(WSAEFAULT);
    if (sock->receiveShut) return fail(WSAESHUTDOWN);
    for (;;) {
        ssize_t n = ::recv(sock.fd(), buffer, static_cast<std::size_t>(length), 0);
        if (sock.interrupted()) return fail(WSAEINTR);
        if (n >= 0) return static_cast<int>(n);
        int e = errno;
        if (e == EINTR) continue;
        // On a blocking socket "would block" can only mean SO_RCVTIMEO expired.
        if (e == EAGAIN) return fail(WSAETIMEDOUT);
        return sock.failWith(e);
    }
}

int shutdown(SOCKET s, int how) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    int linuxHow;
    switch (how) {
        case SD_RECEIVE:
            linuxHow = SHUT_RD;
            break;
        case SD_SEND:
            linuxHow = SHUT_WR;
            break;
        case SD_BOTH:
            linuxHow = SHUT_RDWR;
            break;
        default:
            return fail(WSAEINVAL);
    }
    if (::shutdown(sock.fd(), linuxHow) != 0) return sock.failWith(errno);
    if (how != SD_SEND) sock->receiveShut = true;
    if (how != SD_RECEIVE) sock->sendShut = true;
    return 0;
}

int closesocket(SOCKET s) {
    std::shared_ptr<SocketObject> object;
    {
        auto& t = table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.sockets.find(s);
        if (it == t.sockets.end()) return fail(WSAENOTSOCK);
        object = std::move(it->second);
        t.sockets.erase(it);
        object->closed = true;
        // Wake the calls blocked on it; the descriptor itself is closed when
        // the last of them lets go, so it cannot be reused under them.
        if (object->busy > 0) ::shutdown(object->fd, SHUT_RDWR);
    }
    return 0;
}

int setsockopt(SOCKET s, int level, int optionName, const char* optionValue, int optionLength) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    auto readInt = [&](int& out) {
        if (optionValue == nullptr || optionLength < static_cast<int>(sizeof(int))) return false;
        std::memcpy(&out, optionValue, sizeof out);
        return true;
    };
    int result = -1;
    if (level == kWsSolSocket) {
        if (optionName == kWsReuseAddr) {
            int value;
            if (!readInt(value)) return fail(WSAEFAULT);
            return 0;  // every bind reuses addresses already (see bind)
        } else if (optionName == kWsKeepAlive) {
            int value;
            if (!readInt(value)) return fail(WSAEFAULT);
            value = value != 0;
            result = ::setsockopt(sock.fd(), SOL_SOCKET, SO_KEEPALIVE, &value, sizeof value);
        } else if (optionName == kWsLinger) {
            if (optionValue == nullptr || optionLength < static_cast<int>(sizeof(LINGER)))
                return fail(WSAEFAULT);
            LINGER in;
            std::memcpy(&in, optionValue, sizeof in);
            linger out{in.l_onoff != 0, in.l_linger};
            result = ::setsockopt(sock.fd(), SOL_SOCKET, SO_LINGER, &out, sizeof out);
        } else if (optionName == kWsRcvTimeo || optionName == kWsSndTimeo) {
            DWORD ms;
            if (optionValue == nullptr || optionLength < static_cast<int>(sizeof ms))
                return fail(WSAEFAULT);
            std::memcpy(&ms, optionValue, sizeof ms);
            timeval tv = toTimeval(ms);
            result =
                ::setsockopt(sock.fd(), SOL_SOCKET,
                             optionName == kWsRcvTimeo ? SO_RCVTIMEO : SO_SNDTIMEO, &tv, sizeof tv);
        } else {
            return fail(kWsaENoProtoOpt);
        }
    } else if (level == kWsIpprotoTcp && optionName == kWsTcpNoDelay) {
        int value;
        if (!readInt(value)) return fail(WSAEFAULT);
        value = value != 0;
        result = ::setsockopt(sock.fd(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof value);
    } else {
        return fail(kWsaENoProtoOpt);
    }
    return result == 0 ? 0 : sock.failWith(errno);
}

int getsockname(SOCKET s, SOCKADDR* name, int* nameLength) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getsockname(sock.fd(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
        return sock.failWith(errno);
    return writeSockaddr(sa, name, nameLength);
}

int getpeername(SOCKET s, SOCKADDR* name, int* nameLength) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    if (::getpeername(sock.fd(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
        return sock.failWith(errno);
    return writeSockaddr(sa, name, nameLength);
}

int selectRead(SOCKET s, DWORD timeoutMs) {
    InUse sock(s);
    if (!sock) return fail(WSAENOTSOCK);
    const int timeout = timeoutMs == INFINITE     ? -1
                        : timeoutMs > 0x7fffffffu ? 0x7fffffff
                                                  : static_cast<int>(timeoutMs);
    pollfd p{sock.fd(), POLLIN, 0};
    for (;;) {
        int n = ::poll(&p, 1, timeout);
        if (sock.interrupted()) return fail(WSAEINTR);
        if (n >= 0) return n > 0 ? 1 : 0;
        if (errno != EINTR) return sock.failWith(errno);
    }
}

std::string inet_ntoa(IN_ADDR address) {
    in_addr in{};
    in.s_addr = address.s_addr;
    char text[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &in, text, sizeof text) == nullptr) return {};
    return text;
}

std::uint32_t inet_addr(const char* dotted) {
    in_addr in{};
    if (dotted == nullptr || ::inet_pton(AF_INET, dotted, &in) != 1) return kWsInaddrNone;
    return in.s_addr;
}

std::optional<IN_ADDR> resolveHost(const std::string& name) {
    in_addr in{};
    if (::inet_pton(AF_INET, name.c_str(), &in) == 1) return IN_ADDR{in.s_addr};
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
        return std::nullopt;
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
    const auto* sa = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    return IN_ADDR{sa->sin_addr.s_addr};
}

void setPortMap(std::uint16_t programPort, std::uint16_t hostPort) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.portMap[programPort] = hostPort;
}

void clearPortMap() {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.portMap.clear();
    t.bound.clear();
}

std::uint16_t mappedPort(std::uint16_t programPort) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.portMap.find(programPort);
    return it == t.portMap.end() ? programPort : it->second;
}

std::optional<std::uint16_t> boundHostPort(std::uint16_t programPort) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.bound.find(programPort);
    if (it == t.bound.end()) return std::nullopt;
    return it->second;
}

std::uint16_t localPort(SOCKET s) {
    InUse sock(s);
    return sock ? portOf(sock.fd()) : 0;
}

std::size_t openSocketCountForTest() {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.sockets.size();
}

int callsInProgressForTest(SOCKET s) {
    auto& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.sockets.find(s);
    return it == t.sockets.end() ? 0 : it->second->busy;
}

}  // namespace host
