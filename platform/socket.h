#pragma once
// Blocking TCP stream sockets with the original's Winsock interface: socket
// handles, SOCKET_ERROR answers and the Winsock error codes of win_types.h
// through WSAGetLastError. Only IPv4 stream sockets exist; that is all the
// controller and its tools use.
//
// This header takes the Winsock names (AF_INET, SOL_SOCKET, ...) with the
// Winsock values, so it cannot share a file with the POSIX socket headers.
//
// Closing a socket that another thread is blocked on (accept, recv, send)
// makes that call return SOCKET_ERROR with WSAEINTR, as on the original
// platform, and the handle value is never handed out again.
//
// Port map: tests and unprivileged users cannot always bind the ports the
// program asks for (23, 80, 3445). setPortMap() redirects a program port to
// another host port (0: any free one) whenever the program binds it;
// boundHostPort() tells where it really went.
#include <cstdint>
#include <optional>
#include <string>

#include "platform/win_types.h"

#if defined(SOL_SOCKET) || defined(AF_INET) || defined(SO_REUSEADDR)
#error "platform/socket.h replaces the POSIX socket headers; include only one of them"
#endif

namespace host {

using SOCKET = std::uintptr_t;
inline constexpr SOCKET INVALID_SOCKET = ~SOCKET{0};
inline constexpr int SOCKET_ERROR = -1;

inline constexpr int AF_INET = 2;
inline constexpr int SOCK_STREAM = 1;
inline constexpr int IPPROTO_TCP = 6;

// Options (level, name) as the original's setsockopt knows them.
inline constexpr int SOL_SOCKET = 0xffff;
inline constexpr int SO_REUSEADDR = 0x0004;  // BOOL
inline constexpr int SO_KEEPALIVE = 0x0008;  // BOOL
inline constexpr int SO_LINGER = 0x0080;     // LINGER; {1, 0} resets the connection on close
inline constexpr int SO_SNDTIMEO = 0x1005;   // DWORD milliseconds, 0 = none
inline constexpr int SO_RCVTIMEO = 0x1006;   // DWORD milliseconds, 0 = none
inline constexpr int TCP_NODELAY = 0x0001;   // level IPPROTO_TCP, BOOL

inline constexpr int SD_RECEIVE = 0;
inline constexpr int SD_SEND = 1;
inline constexpr int SD_BOTH = 2;

inline constexpr std::uint32_t INADDR_ANY = 0x00000000;       // host byte order
inline constexpr std::uint32_t INADDR_LOOPBACK = 0x7f000001;  // host byte order
inline constexpr std::uint32_t INADDR_NONE = 0xffffffff;

struct IN_ADDR {
    std::uint32_t s_addr;  // network byte order
};

struct SOCKADDR {
    std::uint16_t sa_family;
    char sa_data[14];
};

struct SOCKADDR_IN {
    std::int16_t sin_family;
    std::uint16_t sin_port;  // network byte order
    IN_ADDR sin_addr;
    char sin_zero[8];
};

struct LINGER {
    std::uint16_t l_onoff;
    std::uint16_t l_linger;  // seconds
};

struct WSADATA {
    WORD wVersion;
    WORD wHighVersion;
    char szDescription[257];
    char szSystemStatus[129];
};

constexpr WORD MAKEWORD(BYTE low, BYTE high) {
    return static_cast<WORD>(low | (high << 8));
}

constexpr std::uint16_t htons(std::uint16_t v) {
    return static_cast<std::uint16_t>((v >> 8) | (v << 8));
}
constexpr std::uint16_t ntohs(std::uint16_t v) {
    return htons(v);
}
constexpr std::uint32_t htonl(std::uint32_t v) {
    return (v >> 24) | ((v >> 8) & 0xff00u) | ((v << 8) & 0xff0000u) | (v << 24);
}
constexpr std::uint32_t ntohl(std::uint32_t v) {
    return htonl(v);
}

// An IPv4 address and port as a SOCKADDR_IN (arguments in host byte order).
SOCKADDR_IN makeSockaddr(std::uint32_t address, std::uint16_t port);

// Per-thread initialisation of the socket layer: nothing to do on Linux, so
// both always succeed (WSAStartup fills `data` when given).
int WSAStartup(WORD versionRequested, WSADATA* data);
int WSACleanup();

// The calling thread's last socket error (shared with GetLastError, as on
// the original platform).
int WSAGetLastError();
void WSASetLastError(int code);

SOCKET socket(int af, int type, int protocol);
// Binds to an IPv4 address; a port named in the port map is replaced by its
// host port. Listening ports can be bound again at once after their
// connections close (the original's stack keeps no lingering claim on them).
int bind(SOCKET s, const SOCKADDR* name, int nameLength);
int listen(SOCKET s, int backlog);
SOCKET accept(SOCKET s, SOCKADDR* address, int* addressLength);
// Connects to a real host address and port (the port map applies to bind only).
int connect(SOCKET s, const SOCKADDR* name, int nameLength);
// Blocking send of all `length` bytes (fewer only if interrupted); never
// raises SIGPIPE: a dropped connection answers SOCKET_ERROR with WSAECONNRESET.
int send(SOCKET s, const char* buffer, int length, int flags);
// Blocking receive of up to `length` bytes: the count, 0 when the peer has
// closed the connection (or for a `length` of 0), SOCKET_ERROR with
// WSAETIMEDOUT when SO_RCVTIMEO expires.
int recv(SOCKET s, char* buffer, int length, int flags);
int shutdown(SOCKET s, int how);
int closesocket(SOCKET s);
int setsockopt(SOCKET s, int level, int optionName, const char* optionValue, int optionLength);
int getsockname(SOCKET s, SOCKADDR* name, int* nameLength);
int getpeername(SOCKET s, SOCKADDR* name, int* nameLength);

// Waits until `s` is readable (data, a closed connection or, for a listening
// socket, a pending client): 1 when readable, 0 after `timeoutMs` of real time
// (INFINITE waits for ever), SOCKET_ERROR on failure. Network waits run on
// real time whatever clock is in force.
int selectRead(SOCKET s, DWORD timeoutMs);

// Dotted-quad text of an address, and back (INADDR_NONE when not one).
std::string inet_ntoa(IN_ADDR address);
std::uint32_t inet_addr(const char* dotted);
// Resolves a host name or dotted quad to an IPv4 address (network byte order).
std::optional<IN_ADDR> resolveHost(const std::string& name);

// The port map. hostPort 0 binds any free port; boundHostPort() answers it.
void setPortMap(std::uint16_t programPort, std::uint16_t hostPort);
void clearPortMap();
// Host port to use when the program binds `programPort`.
std::uint16_t mappedPort(std::uint16_t programPort);
// The host port that the latest bind of `programPort` got, if it was bound.
std::optional<std::uint16_t> boundHostPort(std::uint16_t programPort);
// The local port of a bound socket (host byte order), 0 if it has none.
std::uint16_t localPort(SOCKET s);

// Number of open sockets (for leak checks in tests).
std::size_t openSocketCountForTest();
// Number of calls under way on a socket: once one is counted, closing the
// socket interrupts it whether or not it has reached its wait yet.
int callsInProgressForTest(SOCKET s);

}  // namespace host
