#pragma once
// A blocking client of the remote command protocol: one TCP connection, one
// request at a time, each answered request read back whole. For tovelctl, the
// tests and the benchmarks.
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "server/remote_protocol.h"

namespace tovelclient {

// A connection that could not be made, was closed, timed out or answered
// something that is not a reply. socketError() is the Winsock code, if any.
class ClientError : public std::runtime_error {
  public:
    explicit ClientError(const std::string& what, int socketError = 0)
        : std::runtime_error(what), socketError_(socketError) {}
    int socketError() const { return socketError_; }

  private:
    int socketError_;
};

struct Reply {
    std::uint32_t status = 0;
    std::vector<std::uint8_t> data;
};

// COF images go out in pieces of this size: well inside the server's
// 10000-byte receive buffer together with the 16-byte header.
inline constexpr std::size_t kCofChunkSize = 8192;
inline constexpr std::size_t kCofChunkMax =
    remproto::kReceiveBufferSize - remproto::kLongHeaderSize;

class Client {
  public:
    // Connects to `host` (name or dotted quad) on `port`. A timeout of 0
    // waits for replies for ever. Throws ClientError.
    Client(const std::string& host, std::uint16_t port, DWORD replyTimeoutMs = 0);
    ~Client();
    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Raw exchange: sends the bytes as they are; reads one reply.
    void send(std::span<const std::uint8_t> bytes);
    Reply readReply();
    Reply transact(std::span<const std::uint8_t> request);

    Reply version();
    Reply enumBoards();
    Reply getStatus();
    Reply boot();
    Reply reboot();
    Reply cmdLineControl();
    Reply control(std::uint8_t subCommand, std::span<const std::uint8_t> payload = {});
    Reply atomicSend(std::uint8_t opcode, std::span<const std::uint8_t> payload);
    Reply atomicGet(std::uint8_t opcode, std::span<const std::uint8_t> payload,
                    std::uint8_t replyOpcode, std::uint32_t replyLength);
    // Rem_PrimSend has no reply.
    void primSend(std::uint8_t device, std::uint8_t opcode, std::span<const std::uint8_t> payload);
    Reply primGet(std::uint16_t size);

    // The COF download: RemCtl_CofStart, RemCtl_CofData per chunk, RemCtl_CofEnd.
    // `onReply` sees each reply with the bytes sent so far (before any chunk
    // for the start, the whole image for the end).
    enum class CofStep { Start, Data, End };
    using CofObserver =
        std::function<void(CofStep step, const Reply& reply, std::size_t sent, std::size_t total)>;
    void cofDownload(std::span<const std::uint8_t> image, const CofObserver& onReply,
                     std::size_t chunkSize = kCofChunkSize);

    void close();

  private:
    void receiveAll(std::uint8_t* out, std::size_t size);
    host::SOCKET socket_ = host::INVALID_SOCKET;
    std::string peer_;
};

// Reply data decoded.
std::optional<std::uint32_t> versionOf(const Reply& reply);
std::optional<unsigned> boardCountOf(const Reply& reply);

// "4 (No Error! / Unknown or Not a DSP Error!)"; 0 reads "0 (success)".
std::string describeStatus(std::uint32_t status);
// The text of a Winsock error code ("... (10061)").
std::string socketErrorText(int code);

// Hex text to bytes: pairs of hex digits, blanks, ':', '-' and ',' between
// them ignored, an optional "0x" in front. nullopt if malformed.
std::optional<std::vector<std::uint8_t>> parseHex(const std::string& text);
std::string toHex(std::span<const std::uint8_t> bytes, const char* separator = "");

}  // namespace tovelclient
