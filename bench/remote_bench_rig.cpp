#include "bench/remote_bench_rig.h"

#include <filesystem>
#include <random>
#include <stdexcept>
#include <system_error>

#include "boards/error_log.h"
#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "server/remote_protocol.h"
#include "server/tovel_ctlr.h"
#include "tools/tovel/unit_layout.h"

namespace fs = std::filesystem;

namespace remotebench {

namespace {

constexpr DWORD kConnectPatienceMs = 5000;
constexpr DWORD kConnectRetryMs = 5;
constexpr DWORD kReplyPatienceMs = 10000;

host::SOCKET loopbackListener(std::uint16_t& port) {
    host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, 0);
    if (s == host::INVALID_SOCKET ||
        host::bind(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) != 0 ||
        host::listen(s, 1) != 0)
        throw std::runtime_error("cannot open the baseline server's listening socket");
    port = host::localPort(s);
    return s;
}

}  // namespace

BenchUnit::BenchUnit() {
    std::random_device rd;
    root_ = (fs::temp_directory_path() / ("tovel-bench-remote-" + std::to_string(rd()))).string();
    host::setUnitRoot(root_);
    const auto layout = tovelcmd::layOutUnit();
    if (!layout.ok) throw std::runtime_error(layout.error);
    host::setDebugSink([counts = counts_](const std::wstring& text) {
        counts->lines.fetch_add(1, std::memory_order_relaxed);
        if (text.find(L"Msg Fragment") != std::wstring::npos)
            counts->fragments.fetch_add(1, std::memory_order_relaxed);
    });
}

BenchUnit::~BenchUnit() {
    closeLogFileForShutdown();
    std::error_code ec;
    fs::remove_all(root_, ec);
}

TovelServer::TovelServer() {
    // A free host port for the remote-command port, the same one each time
    // the controller opens its listener again between clients. The Telnet
    // and HTTP responders and the watchdog thread play no part in a
    // request's road and stay off.
    std::uint16_t hostPort = 0;
    host::closesocket(loopbackListener(hostPort));
    host::setPortMap(TovelCtlr::kDefaultPort, hostPort);
    bus_ = sim::installDspBus(false);
    board_ = bus_->attach(sim::BoardKind::T1);
    if (!board_) throw std::runtime_error("cannot attach the simulated T1 board");
    TovelCtlr::createInstance({.watchdog = false, .server = true, .telnet = false, .http = false});
    port_ = hostPort;
}

TovelServer::~TovelServer() {
    TovelCtlr::deleteInstance();
    // One idle pass of the server thread, so it has seen the end before the
    // unit root goes.
    host::Sleep(TovelCtlr::kIdlePassMs * 2);
}

host::SOCKET TovelServer::connect() const {
    return connectLoopback(port_);
}

UsbCtlr* TovelServer::ctlr() const {
    return UsbCtlr::GetCtlrCount() > 0 ? UsbCtlr::GetCtlr(0) : nullptr;
}

RawServer::RawServer(std::size_t requestBytes, std::vector<std::uint8_t> reply)
    : requestBytes_(requestBytes), reply_(std::move(reply)) {
    std::uint16_t port = 0;
    listener_ = loopbackListener(port);
    thread_ = host::CreateThread([this] { return serve(); }, host::THREAD_PRIORITY_NORMAL,
                                 "bench-raw-server");
    if (thread_ == NULL_HANDLE) throw std::runtime_error("cannot start the baseline server");
}

RawServer::~RawServer() {
    // Closing the listener ends an accept still waiting; a served client
    // ends the thread by closing its connection.
    host::closesocket(listener_);
    if (const host::SOCKET client = client_.exchange(host::INVALID_SOCKET);
        client != host::INVALID_SOCKET)
        host::closesocket(client);
    host::WaitForSingleObject(thread_, INFINITE);
    host::CloseHandle(thread_);
}

host::SOCKET RawServer::connect() const {
    return connectLoopback(host::localPort(listener_));
}

DWORD RawServer::serve() {
    const host::SOCKET client = host::accept(listener_, nullptr, nullptr);
    if (client == host::INVALID_SOCKET) return 1;
    client_ = client;
    // Each reply goes out at once, also behind one not yet acknowledged: the
    // baseline is what a server tuned for request/reply does.
    const BOOL on = TRUE_;
    host::setsockopt(client, host::IPPROTO_TCP, host::TCP_NODELAY,
                     reinterpret_cast<const char*>(&on), sizeof on);
    std::vector<char> buffer(remproto::kReceiveBufferSize);  // as large as the session's
    std::size_t pending = 0;                                 // bytes of the request under way
    for (;;) {
        const int n = host::recv(client, buffer.data(), static_cast<int>(buffer.size()), 0);
        if (n <= 0) break;
        pending += static_cast<std::size_t>(n);
        for (; pending >= requestBytes_; pending -= requestBytes_) {
            if (host::send(client, reinterpret_cast<const char*>(reply_.data()),
                           static_cast<int>(reply_.size()), 0) != static_cast<int>(reply_.size()))
                break;
        }
    }
    if (client_.exchange(host::INVALID_SOCKET) != host::INVALID_SOCKET) host::closesocket(client);
    return 0;
}

host::SOCKET connectLoopback(std::uint16_t port) {
    const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
    for (DWORD waited = 0; waited < kConnectPatienceMs; waited += kConnectRetryMs) {
        host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        if (host::connect(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) ==
            0) {
            // The client writes each request in one send; no coalescing wanted.
            const BOOL on = TRUE_;
            host::setsockopt(s, host::IPPROTO_TCP, host::TCP_NODELAY,
                             reinterpret_cast<const char*>(&on), sizeof on);
            // A server that stops answering fails the run instead of hanging it.
            const DWORD timeout = kReplyPatienceMs;
            host::setsockopt(s, host::SOL_SOCKET, host::SO_RCVTIMEO,
                             reinterpret_cast<const char*>(&timeout), sizeof timeout);
            return s;
        }
        host::closesocket(s);
        host::Sleep(kConnectRetryMs);
    }
    return host::INVALID_SOCKET;
}

}  // namespace remotebench
