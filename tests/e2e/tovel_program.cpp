#include "tests/e2e/tovel_program.h"

#include <algorithm>
#include <array>

#include "boards/error_log.h"
#include "server/remote_protocol.h"
#include "tests/support/waiting.h"

namespace e2e {

const std::string kVersionRequest("\x05\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
const std::string kVersionReply("\x04\0\0\0\x04\0\0\0\xED\xEA\x02\0", 12);
const std::string kRebootReply("\x04\0\0\0\0\0\0\0", 8);

Client::Client(std::uint16_t port) {
    s_ = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
    const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
    if (host::connect(s_, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) != 0) {
        error_ = host::WSAGetLastError();
        close();
        return;
    }
    const DWORD timeout = 5000;
    host::setsockopt(s_, host::SOL_SOCKET, host::SO_RCVTIMEO,
                     reinterpret_cast<const char*>(&timeout), sizeof timeout);
}

void Client::close() {
    if (s_ != host::INVALID_SOCKET) host::closesocket(s_);
    s_ = host::INVALID_SOCKET;
}

bool Client::send(const std::string& bytes) {
    return host::send(s_, bytes.data(), static_cast<int>(bytes.size()), 0) ==
           static_cast<int>(bytes.size());
}

std::string Client::receive(std::size_t count) {
    std::string got;
    std::array<char, 512> buffer{};
    while (got.size() < count) {
        const int n = host::recv(s_, buffer.data(),
                                 static_cast<int>(std::min(buffer.size(), count - got.size())), 0);
        if (n <= 0) break;
        got.append(buffer.data(), static_cast<std::size_t>(n));
    }
    return got;
}

std::string Client::ask(const std::string& request, std::size_t replyBytes) {
    return send(request) ? receive(replyBytes) : std::string("<send failed>");
}

std::unique_ptr<Client> connectWhenListening(std::uint16_t port, std::chrono::milliseconds limit) {
    std::unique_ptr<Client> client;
    testing_support::eventually(
        [&] {
            client = std::make_unique<Client>(port);
            return client->connected();
        },
        limit);
    return client;
}

std::string asString(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::vector<std::uint8_t> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

std::uint32_t statusOf(const std::string& reply) {
    return reply.size() < 4 ? 0xFFFFFFFF : remproto::readU32le(bytesOf(reply), 0);
}

void TovelProgram::start(const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"--root",     root.path(),
                                     "--port-map", "3445=" + std::to_string(remotePort),
                                     "--port-map", "23=" + std::to_string(telnetPort),
                                     "--port-map", "80=" + std::to_string(httpPort),
                                     "--headless"};
    args.insert(args.end(), extra.begin(), extra.end());
    tovel = std::make_unique<host::ChildProcess>(std::string(TOVEL_BUILD_DIR) + "/tovel", args,
                                                 output());
    ASSERT_TRUE(tovel->started());
}

std::string TovelProgram::outputText() const {
    return testing_support::fileText(output());
}

testing_support::ProgramRun TovelProgram::sim(const std::vector<std::string>& command) const {
    std::vector<std::string> args = {"--root", root.path()};
    args.insert(args.end(), command.begin(), command.end());
    return testing_support::runProgram("tovelsim", args);
}

int TovelProgram::logCount(const std::wstring& fragment) const {
    int n = 0;
    for (const auto& line : testing_support::logLinesOf(root.hostPath(logFolder + L"\\usb.log")))
        if (line.find(fragment) != std::wstring::npos) ++n;
    return n;
}

bool TovelProgram::logEventually(const std::wstring& fragment, int times) const {
    return testing_support::eventually([&] { return logCount(fragment) >= times; });
}

void TovelProgram::stopAndExpectCleanExit() {
    tovel->terminate();
    EXPECT_EQ(tovel->waitForExit(5s), 0) << outputText();
}

}  // namespace e2e
