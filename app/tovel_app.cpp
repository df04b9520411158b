#include "app/tovel_app.h"

#include "app/message_channels.h"
#include "boards/usb_ctlr.h"
#include "platform/socket.h"
#include "server/tovel_ctlr.h"

CTovelApp::CTovelApp(DisplayFactory makeDisplay) : makeDisplay_(std::move(makeDisplay)) {}

bool CTovelApp::InitInstance() {
    host::WSADATA data{};
    if (host::WSAStartup(host::MAKEWORD(2, 2), &data) != 0) {
        statusMessage(L"CTovelApp::InitInstance() AfxSocketInit() fails!!");
        return false;
    }
    // The controller's threads start listening while the display is built.
    TovelCtlr::instance();

    std::unique_ptr<StatusWindow> display = makeDisplay_ ? makeDisplay_() : nullptr;
    if (display) {
        m_pStatusDlg = display.get();
        setStatusDisplay(display.get());
        display->runModal();
    }
    // The operator closed the display.
    UsbCtlr::Shutdown();
    // No status text reaches the display once it is withdrawn.
    setStatusDisplay(nullptr);
    m_pStatusDlg = nullptr;
    display.reset();
    return false;
}

int CTovelApp::ExitInstance() {
    // current(), not instance(): an application whose socket layer failed
    // has no controller, and must not start one on its way out.
    if (TovelCtlr::current()) TovelCtlr::deleteInstance();
    return 0;
}

int CTovelApp::run() {
    InitInstance();
    return ExitInstance();
}
