// The server thread: the only place where clients become sessions, and the
// place where a requested restart of the unit is carried out.
#include <algorithm>

#include "app/message_channels.h"
#include "boards/error_log.h"
#include "boards/usb_ctlr.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "server/remote_protocol.h"
#include "server/stream_socket.h"
#include "server/tovel.h"
#include "server/tovel_ctlr.h"

DWORD TovelCtlr::serverThreadCallback() {
    // The start-up steps run inside the handler as well: an exception that
    // ended this thread silently would leave a unit that services its
    // watchdog but never listens again.
    try {
        LogError(host::wformat(L"\r\n************* Tovel Version %u Startup *************\r\n",
                               remproto::kServerVersion));
        UsbCtlr::EnumDevices(false, true, false);
        const int boards = UsbCtlr::GetCtlrCount();
        if (boards < 1)
            statusMessage(L"No Boards found!!!\n");
        else
            debugMessage(host::wformat(L"Found %d Boards.\n", boards));
        LogError(logNetworkStatus());

        while (m_running) {
            // m_running is not tested between two accepts; shouldListen() is.
            while (shouldListen()) acceptOneClient();
            drainPass();
        }
    } catch (...) {
        m_running = false;
        m_restartRequested = true;
        statusMessage(L"Unhandled Exception in TovelCtlr thread!!\n");
    }
    if (m_restartRequested) exitViaResetHelper();
    debugMessage(L"Exiting TovelCtlr thread...\n");
    return 0;
}

void TovelCtlr::acceptOneClient() {
    debugMessage(L"Accept a connection... ");
    if (!m_theEar) createListenerSocket();
    StreamSocket client;
    if (!m_theEar->accept(client)) {
        // Read the socket's error before reporting: the report writes files,
        // which must not replace it.
        const int error = host::WSAGetLastError();
        statusMessage(L"TovelCtlr::serverThreadCallback() Error accepting on socket! \n");
        if (error != static_cast<int>(WSAEWOULDBLOCK))
            statusMessage(host::wformat(L"Listening error = %u ", static_cast<unsigned>(error)));
        else
            debugMessage(L"Error WSAEWOULDBLOCK?");
        LogError(logNetworkStatus());
        debugMessage(L"Sleep a bit\n");
        host::Sleep(kAcceptErrorPauseMs);
        return;  // 'theEar' stays open
    }
    debugMessage(L"Got Connection...\n");
    std::shared_ptr<Tovel> tovel;
    {
        // The registry stays locked from the choice of the board until the
        // session holds its controller: a retired controller is deleted as
        // soon as no session holds it, even by another thread's scan.
        host::LockGuard lock(m_tovelLock);
        host::LockGuard registry(*UsbCtlr::registryLock);
        if (UsbCtlr* ctlr = findFreeCtlr()) {
            // Replies go out at once: a client that pipelines requests would
            // otherwise wait for its own delayed acknowledgement (about 40 ms)
            // before each second reply.
            const BOOL noDelay = TRUE_;
            host::setsockopt(client.handle(), host::IPPROTO_TCP, host::TCP_NODELAY,
                             reinterpret_cast<const char*>(&noDelay), sizeof noDelay);
            tovel = Tovel::create(ctlr, client.detach(), this);
            m_tovels.push_back(tovel);
        }
    }
    if (!tovel) {
        statusMessage(L"NULL UsbCtlr on Accept!!; dropping connection!\n");
        client.close();
    } else {
        debugMessage(host::wformat(L"Created Tovel 0x%x\n", logAddress(tovel.get())));
    }
    purgeDoneTovels();
    if (!shouldListen()) {
        debugMessage(L"Shutting down 'theEar'; not listening for further connections\n");
        closeTheEar();
    }
}

void TovelCtlr::closeTheEar() {
    m_theEar.reset();
}

// One pass while no client may be accepted; during a requested restart each
// pass gives the sessions their grace time and then stops the rest.
void TovelCtlr::drainPass() {
    host::Sleep(kIdlePassMs);
    if (m_restartRequested) {
        statusMessage(L"Restart Requested: Wait 5 sec for tovels to self-terminate.\n");
        host::Sleep(kRestartGraceMs);
        statusMessage(L"Restart Requested: Terminate any remaining tovels.\n");
        terminateAllTovels();
        LogError(logNetworkStatus());
    }
    purgeDoneTovels();
}

void TovelCtlr::exitViaResetHelper() {
    statusMessage(L"Restart Requested: Exiting TovelCtlr thread via reboot\n");
    // The helper forces the hardware reset; should it fail to start, the
    // unserviced watchdog resets the unit instead.
    host::CreateProcessW(kResetHelper, L"");
    host::ExitProcess(kRestartExitCode);
}

bool TovelCtlr::shouldListen() {
    host::LockGuard lock(m_tovelLock);
    if (m_restartRequested) {
        if (m_tovels.empty()) m_running = false;
        return false;
    }
    const auto sessions = static_cast<int>(m_tovels.size());
    // The count is read twice, as a board may come or go in between.
    return UsbCtlr::GetCtlrCount() > sessions || (UsbCtlr::GetCtlrCount() == 0 && sessions == 0);
}

UsbCtlr* TovelCtlr::findFreeCtlr() {
    UsbCtlr::EnumDevices(false, true, false);
    for (int index = 0; index < UsbCtlr::GetCtlrCount(); ++index) {
        UsbCtlr* ctlr = UsbCtlr::GetCtlr(index);
        if (!ctlr) continue;  // the registry shrank since the count was read
        const bool used = std::any_of(m_tovels.begin(), m_tovels.end(),
                                      [ctlr](const auto& t) { return t->usesCtlr(ctlr); });
        if (!used) return ctlr;
    }
    return nullptr;
}

namespace {

// Why a port could not be bound or listened on, as an operator would say it.
const wchar_t* listenFailureReason(int error) {
    switch (static_cast<DWORD>(error)) {
        case WSAEADDRINUSE:
            return L"address in use";
        case WSAEACCES:
            return L"permission denied";
        case WSAEADDRNOTAVAIL:
            return L"address not available";
        default:
            return L"socket error";
    }
}

// The fixed texts name no port; the operator also learns which one and why.
void reportListenFailure(std::uint16_t port, int error) {
    debugMessage(
        host::wformat(L"TovelCtlr::createListenerSocket port %u (host port %u): %s (error %d)\n",
                      static_cast<unsigned>(port), static_cast<unsigned>(host::mappedPort(port)),
                      listenFailureReason(error), error));
}

}  // namespace

void TovelCtlr::createListenerSocket() {
    debugMessage(L"Creating 'theEar' to listen for connections.\n");
    m_theEar = std::make_unique<StreamSocket>();
    // A configured number above 65535 keeps its low 16 bits, as a port field would.
    const auto port = static_cast<std::uint16_t>(getListenPort());
    if (!m_theEar->create(port)) {
        const int error = host::WSAGetLastError();
        statusMessage(L"TovelCtlr::createListenerSocket Error creating listening socket!\n");
        reportListenFailure(port, error);
        LogError(logNetworkStatus());
        host::Sleep(kListenerErrorPauseMs);
        host::ExitProcess(-2);
    }
    if (!m_theEar->listen(kListenBacklog)) {
        const int error = host::WSAGetLastError();
        statusMessage(L"TovelCtlr::createListenerSocket Error listening on socket!\n");
        reportListenFailure(port, error);
        LogError(logNetworkStatus());
        host::Sleep(kListenerErrorPauseMs);
        host::ExitProcess(-3);
    }
}
