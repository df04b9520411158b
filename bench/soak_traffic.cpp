#include "bench/soak_traffic.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <vector>

#include "platform/socket.h"
#include "server/remote_protocol.h"
#include "tools/tovelclient/tovel_client.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using tovelclient::Reply;

constexpr std::uint8_t kEchoOpcode = 0x7E;
constexpr DWORD kReplyTimeoutMs = 15000;  // well above the 5000-ms handshake time-out
constexpr auto kNumberedPause = 50ms;     // keeps the log from rotating too fast to check
constexpr auto kScanPause = 2s;           // a scan writes a dozen log lines
// Between two requests: the clients are test software, not a load test,
// and the machine is shared.
constexpr auto kRequestPause = 1ms;

bool isKnownStatus(std::uint32_t status) {
    return status <= 16 || status == 154;
}

// The replies that say the board is gone or hung: the client starts over.
bool meansReconnect(std::uint32_t status) {
    return status == 11 || status == 12 || status == 13;
}

Bytes randomBytes(std::mt19937& rng, std::size_t size) {
    Bytes bytes(size);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
    return bytes;
}

class Session {
  public:
    Session(int index, std::uint16_t port, Tally& tally, NumberedLines& numbered, std::mt19937& rng)
        : index_(index),
          client_("127.0.0.1", port, kReplyTimeoutMs),
          tally_(tally),
          numbered_(numbered),
          rng_(rng) {}

    // One request and its check; false when the session should end.
    bool step() {
        ++tally_.requests;
        const unsigned pick = rng_() % 100;
        const auto now = std::chrono::steady_clock::now();
        if (pick < 10 && now - lastNumbered_ >= kNumberedPause) {
            lastNumbered_ = now;
            return numberedLine();
        }
        if (pick < 20)
            return expect(client_.version(), [](const Reply& r) {
                return r.status == remproto::kControlOkStatus &&
                       tovelclient::versionOf(r) == remproto::kServerVersion;
            });
        if (pick < 22 && now - lastScan_ >= kScanPause) {
            lastScan_ = now;
            return expect(client_.enumBoards(), [](const Reply& r) {
                const auto count = tovelclient::boardCountOf(r);
                return r.status == remproto::kControlOkStatus && count && *count <= 4;
            });
        }
        if (pick < 35)
            return expect(client_.getStatus(), [](const Reply& r) {
                return r.status != 0 || r.data.size() == remproto::kStatusReplyLength;
            });
        const Bytes payload = randomBytes(rng_, 1 + rng_() % 256);
        return expect(client_.atomicGet(kEchoOpcode, payload, kEchoOpcode,
                                        static_cast<std::uint32_t>(payload.size())),
                      [&](const Reply& r) { return r.status != 0 || r.data == payload; });
    }

  private:
    bool numberedLine() {
        const std::uint64_t next = numbered_.confirmed[index_].load();
        const Reply r = client_.control(numberFor(index_, next));
        // Logged before the reply went out: written from now on.
        numbered_.confirmed[index_] = next + 1;
        return expect(
            r, [](const Reply& reply) { return reply.data.size() == 1 && reply.data[0] == 0; });
    }

    template <class Check>
    bool expect(const Reply& reply, Check&& check) {
        if (!isKnownStatus(reply.status) || !check(reply)) {
            ++tally_.wrongReplies;
            return false;
        }
        if (reply.status >= 11 && reply.status <= 15) ++tally_.errorReplies;
        return !meansReconnect(reply.status);
    }

    int index_;
    tovelclient::Client client_;
    Tally& tally_;
    NumberedLines& numbered_;
    std::mt19937& rng_;
    std::chrono::steady_clock::time_point lastNumbered_{};
    std::chrono::steady_clock::time_point lastScan_{};
};

}  // namespace

void runClient(int index, std::uint16_t port, const StopSignal& stop, Tally& tally,
               NumberedLines& numbered) {
    std::mt19937 rng(static_cast<unsigned>(1000 + index));
    while (!stop.stopped()) {
        try {
            Session session(index, port, tally, numbered, rng);
            const unsigned length = 100 + rng() % 900;
            for (unsigned i = 0; i < length && stop.pause(kRequestPause); ++i)
                if (!session.step()) break;
        } catch (const tovelclient::ClientError& e) {
            // Refused while every board is bound; otherwise a request that
            // got no reply.
            if (std::string(e.what()).rfind("cannot connect", 0) == 0)
                ++tally.refused;
            else
                ++tally.dropped;
            stop.pause(std::chrono::milliseconds(50 + rng() % 150));
        }
    }
}

namespace {

// A plain loopback connection for the hostile kinds; INVALID_SOCKET if refused.
host::SOCKET connectRaw(std::uint16_t port) {
    host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
    if (host::connect(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) != 0) {
        host::closesocket(s);
        return host::INVALID_SOCKET;
    }
    return s;
}

void sendAll(host::SOCKET s, const Bytes& bytes) {
    host::send(s, reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()), 0);
}

// Reads what comes for up to `limit` (the unit may close the connection).
void drain(host::SOCKET s, DWORD limitMs) {
    char buffer[4096];
    while (host::selectRead(s, limitMs) > 0)
        if (host::recv(s, buffer, sizeof buffer, 0) <= 0) break;
}

void hostileOnce(host::SOCKET s, int kind, std::mt19937& rng, const StopSignal& stop) {
    switch (kind) {
        case 0: {  // random bytes behind an opcode that is no request
            Bytes bytes = randomBytes(rng, 64 + rng() % 2000);
            bytes[0] = static_cast<std::uint8_t>(6 + rng() % 250);
            sendAll(s, bytes);
            stop.pause(100ms);
            break;
        }
        case 1:  // a header cut short
            sendAll(s, Bytes{Rem_AtomicGet, kEchoOpcode, 0});
            break;
        case 2: {  // a size no buffer holds
            Bytes header = remproto::encodeAtomicGet(kEchoOpcode, {}, kEchoOpcode, 4);
            remproto::writeU32le(header, 4, 0xFFFFFF00u);
            sendAll(s, header);
            sendAll(s, randomBytes(rng, 4000));
            drain(s, 500);
            break;
        }
        case 3: {  // a slow trickle of one whole request
            const Bytes payload = randomBytes(rng, 8);
            for (std::uint8_t b : remproto::encodeAtomicGet(kEchoOpcode, payload, kEchoOpcode, 8)) {
                sendAll(s, Bytes{b});
                if (!stop.pause(50ms)) break;
            }
            drain(s, 1000);
            break;
        }
        case 4:  // random raw packets, to any device but the board's identity
            for (int i = 0; i < 5; ++i)
                sendAll(s, remproto::encodePrimSend(static_cast<std::uint8_t>(rng() % 11),
                                                    static_cast<std::uint8_t>(rng()),
                                                    randomBytes(rng, rng() % 64)));
            drain(s, 200);
            break;
        case 5: {  // requests that are never read
            const Bytes request =
                remproto::encodeAtomicGet(kEchoOpcode, randomBytes(rng, 1024), kEchoOpcode, 1024);
            for (int i = 0; i < 200; ++i) sendAll(s, request);
            stop.pause(300ms);
            break;
        }
        default:  // idle for a while
            stop.pause(1500ms);
            break;
    }
}

}  // namespace

void runHostile(std::uint16_t port, const StopSignal& stop, Tally& tally) {
    std::mt19937 rng(77);
    while (stop.pause(std::chrono::milliseconds(1500 + rng() % 3000))) {
        const int kind = static_cast<int>(rng() % 8);
        if (kind == 7) {  // connect and close in a burst
            for (int i = 0; i < 20; ++i)
                if (host::SOCKET s = connectRaw(port); s != host::INVALID_SOCKET) {
                    ++tally.hostile;
                    host::closesocket(s);
                }
            continue;
        }
        host::SOCKET s = connectRaw(port);
        if (s == host::INVALID_SOCKET) continue;
        ++tally.hostile;
        hostileOnce(s, kind, rng, stop);
        host::closesocket(s);
    }
}

}  // namespace soak
