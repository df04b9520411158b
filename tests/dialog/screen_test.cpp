// The tovel program on a terminal: started in a pseudo-terminal, its status
// window read back from what it drew, closed with Enter.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/child_process.h"
#include "platform/socket.h"
#include "platform/terminal_child.h"
#include "tests/dialog/terminal_screen.h"
#include "tests/support/test_support.h"
#include "tests/support/waiting.h"

using namespace std::chrono_literals;
using dialog_test::TerminalScreen;

namespace {

constexpr int kRows = 30;
constexpr int kCols = 100;

// Connects once the port listens, then resets the connection: the session
// reports the receive error as a status text.
bool connectAndReset(std::uint16_t port, std::chrono::milliseconds limit) {
    return testing_support::eventually(
        [port] {
            host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
            const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
            const bool connected =
                host::connect(s, reinterpret_cast<const host::SOCKADDR*>(&address),
                              sizeof address) == 0;
            const host::LINGER reset{1, 0};
            if (connected)
                host::setsockopt(s, host::SOL_SOCKET, host::SO_LINGER,
                                 reinterpret_cast<const char*>(&reset), sizeof reset);
            host::closesocket(s);
            return connected;
        },
        limit);
}

// The program on a pseudo-terminal, with the screen it has drawn so far.
class TovelOnATerminal {
  public:
    explicit TovelOnATerminal(const std::vector<std::string>& args, int rows = kRows,
                              int cols = kCols)
        : screen_(rows, cols),
          child_(std::string(TOVEL_BUILD_DIR) + "/tovel", args, rows, cols,
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

// The arguments of a unit on `root` with free ports (the first: remote).
std::vector<std::string> unitArgs(const testing_support::TempUnitRoot& root,
                                  const std::vector<std::uint16_t>& ports,
                                  const std::string& boards) {
    return {"--root",     root.path(),
            "--boards",   boards,
            "--port-map", "3445=" + std::to_string(ports[0]),
            "--port-map", "23=" + std::to_string(ports[1]),
            "--port-map", "80=" + std::to_string(ports[2])};
}

// The status field's rows joined (a wrapped text reads as one).
std::wstring statusField(const TerminalScreen& s) {
    const int label = s.find(L"Status:");
    const int usage = s.find(L"%CPU Usage");
    std::wstring text;
    for (int r = label + 1; label >= 0 && r < usage; ++r) {
        std::wstring row = s.row(r);
        // Inside the frame: drop the borders and the blanks around the text.
        const auto first = row.find_first_not_of(L" \u2502|");
        const auto last = row.find_last_not_of(L" \u2502|");
        if (first == std::wstring::npos) continue;
        if (!text.empty()) text += L' ';
        text += row.substr(first, last - first + 1);
    }
    return text;
}

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
    TovelOnATerminal tovel(unitArgs(root, ports, "t1"));
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

// A reboot request: the restart's status text fills the field, wrapped on a
// narrow terminal (the layout for other sizes is checked without one), and
// the LED row stays whole beside it.
TEST(StatusWindowOnATerminal, LongStatusAndLedRowAreWholeAt60x20) {
    if (!std::filesystem::exists(TOVEL_BUILD_DIR "/tovel")) GTEST_SKIP() << "tovel is not built";
    const std::wstring restart = L"Restart Requested: Wait 5 sec for tovels to self-terminate.";
    testing_support::TempUnitRoot root;
    const auto ports = testing_support::freePorts(3);
    TovelOnATerminal tovel(unitArgs(root, ports, "t1"), 20, 60);
    ASSERT_TRUE(tovel.started());
    ASSERT_TRUE(tovel.drawsUntil([](const TerminalScreen& s) {
        const int leds = s.find(L"LEDs  Green");
        return leds >= 0 && s.row(leds).find(L"Front A") != std::wstring::npos &&
               s.row(leds).find(L"  B ") != std::wstring::npos;
    })) << testing::PrintToString(tovel.screen().text());

    // tovelctl answers 2 while the unit does not listen yet.
    std::optional<int> rebooted;
    for (int attempt = 0; attempt < 100 && rebooted != 0; ++attempt) {
        host::ChildProcess reboot(TOVEL_BUILD_DIR "/tovelctl",
                                  {"--port", std::to_string(ports[0]), "reboot"},
                                  root.path() + "/tovelctl.txt");
        while (!(rebooted = reboot.waitForExit(20ms)))
            tovel.drawsUntil([](auto&) { return false; }, 0ms);
    }
    ASSERT_EQ(rebooted, 0) << root.readFile(L"\\tovelctl.txt");
    ASSERT_TRUE(tovel.drawsUntil([&](const TerminalScreen& s) {
        return statusField(s) == restart;
    })) << testing::PrintToString(tovel.screen().text());
    // The dialog is centred and whole: its LED row with it.
    const TerminalScreen& screen = tovel.screen();
    const int leds = screen.find(L"LEDs  Green");
    ASSERT_GE(leds, 0);
    EXPECT_NE(screen.row(leds).find(L"  B "), std::wstring::npos);
    EXPECT_GT(screen.find(L"[OK]"), 0) << "centred, with held debug output around it";
    // The restart ends the unit with 22.
    EXPECT_EQ(tovel.exitCode(20000ms), 22);
}

// Below the smallest size the window says so; debug lines from before the
// window opened are in its pane; a normal close leaves the last ones on the
// terminal.
TEST(StatusWindowOnATerminal, TooSmallEarlyDebugLinesAndLinesLeftAtClose) {
    if (!std::filesystem::exists(TOVEL_BUILD_DIR "/tovel")) GTEST_SKIP() << "tovel is not built";
    {
        testing_support::TempUnitRoot root;
        TovelOnATerminal tovel(unitArgs(root, testing_support::freePorts(3), "none"), 8, 30);
        ASSERT_TRUE(tovel.started());
        ASSERT_TRUE(tovel.drawsUntil([](const TerminalScreen& s) {
            return s.find(L"Terminal too small") >= 0;
        })) << testing::PrintToString(tovel.screen().text());
        EXPECT_LT(tovel.screen().find(L"Status:"), 0);
        tovel.type("\r");
        EXPECT_EQ(tovel.exitCode(10000ms), 0);
    }
    testing_support::TempUnitRoot root;
    TovelOnATerminal tovel(unitArgs(root, testing_support::freePorts(3), "none"), 24, 80);
    ASSERT_TRUE(tovel.started());
    // Written by the server thread before the window is made.
    ASSERT_TRUE(tovel.drawsUntil([](const TerminalScreen& s) {
        const int pane = s.find(L"Debug output:");
        return showsTheDialog(s) && pane >= 0 && s.find(L"Start Blink FrontPanelLED") > pane;
    })) << testing::PrintToString(tovel.screen().text());
    EXPECT_GE(tovel.screen().find(L"WatchDog"), 0) << testing::PrintToString(tovel.screen().text());
    tovel.type("\r");
    EXPECT_EQ(tovel.exitCode(10000ms), 0);
    // The window is gone; its last debug lines were written under it.
    const TerminalScreen& after = tovel.screen();
    const int lastBlink = after.find(L"Start Blink FrontPanelLED");
    EXPECT_GT(lastBlink, after.find(L"Enter or Esc: OK")) << testing::PrintToString(after.text());
}

TEST(StatusWindowOnATerminal, HeadlessOnATerminalPrintsStatusLinesAndEndsOnCtrlC) {
    if (!std::filesystem::exists(TOVEL_BUILD_DIR "/tovel")) GTEST_SKIP() << "tovel is not built";
    testing_support::TempUnitRoot root;
    const auto ports = testing_support::freePorts(3);
    auto args = unitArgs(root, ports, "none");
    args.push_back("--headless");
    TovelOnATerminal tovel(args);
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
