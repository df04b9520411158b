// The Telnet and HTTP ports: each answers every connection with the notice
// that the unit is in its Windows GUI mode, then closes it.
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "app/message_channels.h"
#include "boards/error_log.h"
#include "platform/clock.h"
#include "server/alternate_answers.h"
#include "server/stream_socket.h"
#include "server/tovel_ctlr.h"

DWORD TovelCtlr::TCPAlternateThread(std::uint16_t port, AlternateResponder responder) {
    try {
        StreamSocket listener;
        if (!listener.create(port)) {
            LogError(L"TCPAlternateThread CSocket::Create failed");
            return 0;
        }
        if (!listener.listen(kAlternateBacklog)) {
            LogError(L"TCPAlternateThread CSocket::Listen failed");
            return 0;
        }
        while (!m_restartRequested) {
            StreamSocket client;
            if (!listener.accept(client)) {
                LogError(L"TCPAlternateThread CSocket::Accept failed");
                continue;
            }
            const std::string answer = responder(*this, client.handle());
            client.sendAll(answer.data(), static_cast<int>(answer.size()));
            client.close();
        }
    } catch (...) {
        m_running = false;
        m_restartRequested = true;
        statusMessage(L"Unhandled Exception in TovelCtlr::TCPAlternateThread!\n");
    }
    return 0;
}

std::string telnetAnswer(TovelCtlr&, host::SOCKET) {
    return std::string(kGuiModeNotice) + "\r\n";
}

std::string httpAnswer(TovelCtlr&, host::SOCKET client) {
    std::array<char, kHttpBufferSize> buffer{};
    // The request is read once. A client that connects and sends nothing
    // would hold this port's only thread for good, so the receive gives up
    // after kHttpReceiveTimeoutMs and the request counts as empty.
    const DWORD timeout = kHttpReceiveTimeoutMs;
    host::setsockopt(client, host::SOL_SOCKET, host::SO_RCVTIMEO,
                     reinterpret_cast<const char*>(&timeout), sizeof timeout);
    int received = host::recv(client, buffer.data(), kHttpBufferSize - 1, 0);
    if (received < 0) received = 0;
    buffer[static_cast<std::size_t>(received)] = '\0';

    host::SYSTEMTIME now{};
    host::GetSystemTime(&now);
    return httpReply(std::string_view(buffer.data()), received, now);
}
