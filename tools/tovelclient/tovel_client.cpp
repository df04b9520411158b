#include "tools/tovelclient/tovel_client.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "boards/dsp_status.h"
#include "platform/last_error.h"
#include "platform/text.h"

namespace tovelclient {
namespace {

[[noreturn]] void throwSocketError(const std::string& what, int code) {
    throw ClientError(what + ": " + socketErrorText(code), code);
}

}  // namespace

std::string socketErrorText(int code) {
    std::string text;
    if (auto message = host::FormatMessageText(static_cast<DWORD>(code))) {
        text = host::narrow(*message);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        text += " ";
    }
    return text + "(" + std::to_string(code) + ")";
}

Client::Client(const std::string& host, std::uint16_t port, DWORD replyTimeoutMs)
    : peer_(host + ":" + std::to_string(port)) {
    host::WSAStartup(host::MAKEWORD(2, 2), nullptr);
    auto address = host::resolveHost(host);
    if (!address) throw ClientError("cannot connect to " + peer_ + ": unknown host");
    socket_ = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    if (socket_ == host::INVALID_SOCKET)
        throwSocketError("cannot create a socket", host::WSAGetLastError());
    host::SOCKADDR_IN sa = host::makeSockaddr(host::ntohl(address->s_addr), port);
    if (host::connect(socket_, reinterpret_cast<const host::SOCKADDR*>(&sa), sizeof sa) != 0) {
        int code = host::WSAGetLastError();
        close();
        throwSocketError("cannot connect to " + peer_, code);
    }
    // Requests are small and answered one by one: send each at once.
    int one = 1;
    host::setsockopt(socket_, host::IPPROTO_TCP, host::TCP_NODELAY,
                     reinterpret_cast<const char*>(&one), sizeof one);
    if (replyTimeoutMs > 0)
        host::setsockopt(socket_, host::SOL_SOCKET, host::SO_RCVTIMEO,
                         reinterpret_cast<const char*>(&replyTimeoutMs), sizeof replyTimeoutMs);
}

Client::~Client() {
    close();
}

Client::Client(Client&& other) noexcept
    : socket_(std::exchange(other.socket_, host::INVALID_SOCKET)), peer_(std::move(other.peer_)) {}

Client& Client::operator=(Client&& other) noexcept {
    if (this != &other) {
        close();
        socket_ = std::exchange(other.socket_, host::INVALID_SOCKET);
        peer_ = std::move(other.peer_);
    }
    return *this;
}

void Client::close() {
    if (socket_ != host::INVALID_SOCKET) host::closesocket(socket_);
    socket_ = host::INVALID_SOCKET;
}

void Client::send(std::span<const std::uint8_t> bytes) {
    if (socket_ == host::INVALID_SOCKET) throw ClientError("not connected");
    std::size_t done = 0;
    while (done < bytes.size()) {
        const int chunk = static_cast<int>(std::min<std::size_t>(bytes.size() - done, 1 << 20));
        int n = host::send(socket_, reinterpret_cast<const char*>(bytes.data() + done), chunk, 0);
        if (n == host::SOCKET_ERROR)
            throwSocketError("sending to " + peer_ + " failed", host::WSAGetLastError());
        done += static_cast<std::size_t>(n);
    }
}

void Client::receiveAll(std::uint8_t* out, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        int n = host::recv(socket_, reinterpret_cast<char*>(out + done),
                           static_cast<int>(size - done), 0);
        if (n == 0) throw ClientError("connection closed by " + peer_);
        if (n == host::SOCKET_ERROR) {
            int code = host::WSAGetLastError();
            if (code == static_cast<int>(WSAETIMEDOUT))
                throw ClientError("no reply from " + peer_ + " in time", code);
            throwSocketError("receiving from " + peer_ + " failed", code);
        }
        done += static_cast<std::size_t>(n);
    }
}

Reply Client::readReply() {
    if (socket_ == host::INVALID_SOCKET) throw ClientError("not connected");
    std::array<std::uint8_t, remproto::kReplyHeaderSize> header{};
    receiveAll(header.data(), header.size());
    auto h = remproto::decodeReplyHeader(header);
    // Never trust a length the protocol cannot produce: it would have us
    // wait for (and allocate) bytes that are not coming.
    if (h.length > remproto::kReplyDataMax)
        throw ClientError("malformed reply from " + peer_ + ": length " + std::to_string(h.length) +
                          " exceeds " + std::to_string(remproto::kReplyDataMax));
    Reply reply;
    reply.status = h.status;
    reply.data.resize(h.length);
    receiveAll(reply.data.data(), reply.data.size());
    return reply;
}

Reply Client::transact(std::span<const std::uint8_t> request) {
    send(request);
    return readReply();
}

Reply Client::control(std::uint8_t subCommand, std::span<const std::uint8_t> payload) {
    return transact(remproto::encodeControl(subCommand, payload));
}

Reply Client::version() {
    return control(RemCtl_Version);
}
Reply Client::enumBoards() {
    return control(RemCtl_EnumBoards);
}
Reply Client::boot() {
    return control(RemCtl_DspBoot);
}
Reply Client::reboot() {
    return control(RemCtl_Reboot);
}
Reply Client::cmdLineControl() {
    return control(RemCtl_CmdLineControl);
}
Reply Client::getStatus() {
    return transact(remproto::encodeGetStatus());
}

Reply Client::atomicSend(std::uint8_t opcode, std::span<const std::uint8_t> payload) {
    return transact(remproto::encodeAtomicSend(opcode, payload));
}

Reply Client::atomicGet(std::uint8_t opcode, std::span<const std::uint8_t> payload,
                        std::uint8_t replyOpcode, std::uint32_t replyLength) {
    return transact(remproto::encodeAtomicGet(opcode, payload, replyOpcode, replyLength));
}

void Client::primSend(std::uint8_t device, std::uint8_t opcode,
                      std::span<const std::uint8_t> payload) {
    send(remproto::encodePrimSend(device, opcode, payload));
}

Reply Client::primGet(std::uint16_t size) {
    return transact(remproto::encodePrimGet(size));
}

void Client::cofDownload(std::span<const std::uint8_t> image, const CofObserver& onReply,
                         std::size_t chunkSize) {
    if (chunkSize == 0 || chunkSize > kCofChunkMax)
        throw ClientError("COF chunk size must be 1.." + std::to_string(kCofChunkMax));
    auto report = [&](CofStep step, const Reply& reply, std::size_t sent) {
        if (onReply) onReply(step, reply, sent, image.size());
    };
    report(CofStep::Start, control(RemCtl_CofStart), 0);
    for (std::size_t sent = 0; sent < image.size();) {
        auto chunk = image.subspan(sent, std::min(chunkSize, image.size() - sent));
        Reply reply = control(RemCtl_CofData, chunk);
        sent += chunk.size();
        report(CofStep::Data, reply, sent);
    }
    report(CofStep::End, control(RemCtl_CofEnd), image.size());
}

std::optional<std::uint32_t> versionOf(const Reply& reply) {
    if (reply.data.size() < 4) return std::nullopt;
    return remproto::readU32le(reply.data, 0);
}

std::optional<unsigned> boardCountOf(const Reply& reply) {
    if (reply.data.empty()) return std::nullopt;
    return reply.data[0];
}

std::string describeStatus(std::uint32_t status) {
    // 0 borrows the default texts ("DSP Dead!"), which would read as a failure.
    if (status == 0) return "0 (success)";
    const auto code = static_cast<std::int32_t>(status);
    return std::to_string(status) + " (" + host::narrow(dspStatusShortText(code)) + " / " +
           host::narrow(dspStatusText(code)) + ")";
}

std::optional<std::vector<std::uint8_t>> parseHex(const std::string& text) {
    std::string digits;
    std::size_t start = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) start = 2;
    for (std::size_t i = start; i < text.size(); ++i) {
        const char c = text[i];
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (c != ' ' && c != '\t' && c != ':' && c != '-' && c != ',')
            return std::nullopt;
    }
    if (digits.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string toHex(std::span<const std::uint8_t> bytes, const char* separator) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) out += separator;
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0xf];
    }
    return out;
}

}  // namespace tovelclient
