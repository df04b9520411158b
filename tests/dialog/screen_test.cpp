// The tovel program on a terminal: started in a pseudo-terminal, its status
// window read back from what it drew, closed with Enter.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/terminal_child.h"
#include "tests/dialog/terminal_screen.h"
#include "tests/support/test_support.h"

using namespace std::chrono_literals;
using dialog_test::TerminalScreen;

namespace {

constexpr int kRows = 30;
constexpr int kCols = 100;

// Connects once the port listens, then resets the connection: the session
// reports the receive error as a status text.
bool connectAndReset(std::uint16_t port, std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < until) {
        host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
        if (host::connect(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) ==
            0) {
            const host::LINGER reset{1, 0};
            host::setsockopt(s, host::SOL_SOCKET, host::SO_LINGER,
                             reinterpret_cast<const char*>(&reset), sizeof reset);
            host::closesocket(s);
            return true;
        }
        host::closesocket(s);
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

// The program on a pseudo-terminal, with the screen it has drawn so far.
class TovelOnATerminal {
  public:
    explicit TovelOnATerminal(const std::vector<std::string>& args)
        : screen_(kRows, kCols),
          child_(std::string(TOVEL_BUILD_DIR) + "/tovel", args, kRows, kCols,
                 {{"TERM", "vt100"}, {"LC_ALL", "C.UTF-8"}}) {}

    bool started() const { return child_.started(); }
    const TerminalScreen& screen() const { return screen_; }

    // Reads what the program draws until `ready` holds for the screen.
    bool drawsUntil(const std::function<bool(const TerminalScreen&)>& ready,
                    std::chrono::milliseconds limit = 10000ms) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (!ready(screen_)) {
            if (std::chrono::steady_clock::now() > until) return false;
            screen_.feed(child_.read(20));
        }
        return true;
    }

    void type(const std::string& keys) { child_.type(keys); }

    // The exit code once the program ended within `limit`; its output is
    // read meanwhile, so that it never waits on a full terminal.
    std::optional<int> exitCode(std::chrono::milliseconds limit) {
        const auto until = std::chrono::steady_clock::now() + limit;
        std::optional<int> code;
        while (!(code = child_.exitCode()) && std::chrono::steady_clock::now() < until)
            screen_.feed(child_.read(10));
        return code;
    }

  private:
    TerminalScreen screen_;
    host::TerminalChild child_;
};

bool showsTheDialog(const TerminalScreen& s) {
    const int caption = s.find(L"Tovel");
    const int status = s.find(L"Status:");
    const int usage = s.find(L"%CPU Usage");
    const int leds = s.find(L"LEDs");
    return caption >= 0 && status == caption + 1 && usage == status + 2 && leds == usage + 2 &&
           s.find(L"[OK]") == caption;
}

TEST(StatusWindowOnATerminal, ShowsTheStatusTheLoadAndTheLedsAndClosesWithEnter) {
    if (!std::filesystem::exists(TOVEL_BUILD_DIR "/tovel")) GTEST_SKIP() << "tovel is not built";
    testing_support::TempUnitRoot root;
    const auto ports = testing_support::freePorts(3);
    TovelOnATerminal tovel({"--root", root.path(), "--boards", "t1", "--port-map",
                            "3445=" + std::to_string(ports[0]), "--port-map",
                            "23=" + std::to_string(ports[1]), "--port-map",
                            "80=" + std::to_string(ports[2])});
    ASSERT_TRUE(tovel.started());

    ASSERT_TRUE(tovel.drawsUntil(showsTheDialog)) << testing::PrintToString(tovel.screen().text());
    // The bar lies under its label, inside the frame; the load is a percentage.
    const TerminalScreen& screen = tovel.screen();
    const int usage = screen.find(L"%CPU Usage");
    EXPECT_NE(screen.row(usage).find(L"%"), std::wstring::npos);
    const std::wstring bar = screen.row(usage + 1);
    EXPECT_TRUE(bar.find(L'\u2588') != std::wstring::npos ||
                bar.find(L'\u2591') != std::wstring::npos)
        << testing::PrintToString(bar);
    // The LEDs appear once the CPU/LED thread has set them up.
    EXPECT_TRUE(tovel.drawsUntil([usage](const TerminalScreen& s) {
        return s.row(usage + 2).find(L"Green") != std::wstring::npos;
    })) << testing::PrintToString(screen.row(usage + 2));

    // A client whose connection is reset: the session's status text appears
    // on the status line.
    ASSERT_TRUE(connectAndReset(ports[0], 10000ms));
    ASSERT_TRUE(tovel.drawsUntil([](const TerminalScreen& s) {
        const int status = s.find(L"Status:");
        return status >= 0 && s.row(status + 1).find(L"Socket Error in Receive: WSAECONNRESET") !=
                                  std::wstring::npos;
    })) << testing::PrintToString(tovel.screen().text());

    tovel.type("\r");
    EXPECT_EQ(tovel.exitCode(10000ms), 0);

    // The orderly end: the registry's shutdown is the last the log says.
    const auto lines = testing_support::logLines();
    int shutdown = -1;
    for (int i = 0; i < static_cast<int>(lines.size()); ++i)
        if (lines[static_cast<std::size_t>(i)].find(L"UsbCtlr::Shutdown() entered, have 1 ctlrs") !=
            std::wstring::npos)
            shutdown = i;
    ASSERT_GE(shutdown, 0);
    for (std::size_t i = static_cast<std::size_t>(shutdown) + 1; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].find(L"Socket Error"), std::wstring::npos);
}

TEST(StatusWindowOnATerminal, HeadlessOnATerminalPrintsStatusLinesAndEndsOnCtrlC) {
    if (!std::filesystem::exists(TOVEL_BUILD_DIR "/tovel")) GTEST_SKIP() << "tovel is not built";
    testing_support::TempUnitRoot root;
    const auto ports = testing_support::freePorts(3);
    TovelOnATerminal tovel({"--headless", "--root", root.path(), "--boards", "none", "--port-map",
                            "3445=" + std::to_string(ports[0]), "--port-map",
                            "23=" + std::to_string(ports[1]), "--port-map",
                            "80=" + std::to_string(ports[2])});
    ASSERT_TRUE(tovel.started());
    // The dialog's work runs without the window: the CPU/LED thread sets up the LEDs.
    ASSERT_TRUE(tovel.drawsUntil([](const TerminalScreen& s) {
        return s.find(L"Start Blink FrontPanelLED") >= 0 &&
               s.find(L"PowerFailThread - Enter Loop") >= 0;
    })) << testing::PrintToString(tovel.screen().text());
    EXPECT_LT(tovel.screen().find(L"%CPU Usage"), 0);
    tovel.type("\x03");  // the terminal turns it into SIGINT
    EXPECT_EQ(tovel.exitCode(10000ms), 0);
}

}  // namespace
