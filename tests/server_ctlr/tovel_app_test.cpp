// The application's start and orderly end, and the headless status display.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "app/headless_display.h"
#include "app/message_channels.h"
#include "app/tovel_app.h"
#include "platform/clock.h"
#include "platform/handles.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "server/tovel_ctlr.h"
#include "sim/dsp_bus.h"
#include "sim/watchdog_vendor_library.h"
#include "tests/server_ctlr/ctlr_fixture.h"
#include "tests/support/test_support.h"

namespace {

// A display that records, into the test's variables, what it saw while it
// was open (the application destroys the display itself).
class RecordingWindow final : public StatusWindow {
  public:
    RecordingWindow(std::vector<std::wstring>& seen, bool& controllerWhileOpen)
        : seen_(seen), controllerWhileOpen_(controllerWhileOpen) {}
    void StatusMsg(std::wstring text) override {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(std::move(text));
    }
    void runModal() override {
        controllerWhileOpen_ = TovelCtlr::current() != nullptr;
        // Closed once the server waits for clients and logs no more: the
        // registry's end closes the event log file under the server's feet.
        ctlrtest::eventually(
            [] { return host::boundHostPort(TovelCtlr::kDefaultPort).has_value(); });
        statusMessage(L"shown while open\n");
    }

  private:
    std::mutex mutex_;
    std::vector<std::wstring>& seen_;
    bool& controllerWhileOpen_;
};

TEST(TovelApp, ControllerRunsWhileTheDisplayIsOpenAndEndsAfterTheRegistry) {
    // The controller's threads are never joined: its watchdog thread sleeps
    // on the real clock until the process ends, so that clock is one that
    // process exit does not destroy.
    static host::RealClock* const lasting = new host::RealClock;
    host::setClock(std::shared_ptr<host::Clock>(lasting, [](host::Clock*) {}));
    testing_support::TempUnitRoot root;
    ctlrtest::ExitRecorder exits;
    ctlrtest::writeRegistry(
        root,
        "[HKEY_LOCAL_MACHINE\\COMM\\Firewall\\Rules\\InboundTovel]\n\"Port\"=dword:00000d75\n");
    for (std::uint16_t port : {3445, 23, 80}) host::setPortMap(port, 0);
    auto bus = sim::installDspBus(false);

    std::vector<std::wstring> seen;
    bool controllerWhileOpen = false;
    CTovelApp app([&] { return std::make_unique<RecordingWindow>(seen, controllerWhileOpen); });
    EXPECT_EQ(app.run(), 0);
    EXPECT_TRUE(controllerWhileOpen);
    // The server thread may report as well while the display is open.
    EXPECT_NE(std::find(seen.begin(), seen.end(), L"shown while open\n"), seen.end());
    EXPECT_EQ(app.m_pStatusDlg, nullptr);
    EXPECT_EQ(TovelCtlr::current(), nullptr);
    EXPECT_TRUE(testing_support::logContains(L"UsbCtlr::Shutdown() entered, have 0 ctlrs"));
    statusMessage(L"after the end\n");  // no display any more: must not fail
    EXPECT_EQ(std::count(seen.begin(), seen.end(), L"after the end\n"), 0);
    EXPECT_FALSE(exits.exited());
}

TEST(HeadlessDisplay, PrintsOneLinePerStatusAndClosesOnItsEvent) {
    std::FILE* out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    const HANDLE closeEvent = host::CreateEventW(true, false, nullptr);
    HeadlessDisplay display(out, closeEvent);
    display.StatusMsg(L"No Boards found!!!\n");
    display.StatusMsg(L"Restart Requested: Terminate any remaining tovels.\r\n");
    display.StatusMsg(L"no line end");
    EXPECT_EQ(display.statusText(), L"no line end");
    host::SetEvent(closeEvent);
    display.runModal();  // returns at once: the event is set
    std::rewind(out);
    std::string text(256, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), out));
    EXPECT_EQ(
        text,
        "No Boards found!!!\nRestart Requested: Terminate any remaining tovels.\nno line end\n");
    std::fclose(out);
    host::CloseHandle(closeEvent);
}

}  // namespace
