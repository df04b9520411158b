// The tovel program on a terminal: started in a pseudo-terminal, its status
// window read back from what it drew, closed with Enter.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "tests/dialog/terminal_screen.h"
#include "tests/support/test_support.h"

using namespace std::chrono_literals;
using dialog_test::TerminalScreen;

namespace {

constexpr int kRows = 30;
constexpr int kCols = 100;

// Distinct ports that were free a moment ago.
std::vector<std::uint16_t> freePorts(int count) {
    std::vector<host::SOCKET> held;
    std::vector<std::uint16_t> ports;
    for (int i = 0; i < count; ++i) {
        host::SOCKET s = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, 0);
        host::bind(s, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address);
        ports.push_back(host::localPort(s));
        held.push_back(s);
    }
    for (auto s : held) host::closesocket(s);
    return ports;
}

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

// The program as the child of a pseudo-terminal; killed if it still runs
// when the object goes.
class TovelOnATerminal {
  public:
    explicit TovelOnATerminal(const std::vector<std::string>& args) : screen_(kRows, kCols) {
        std::vector<std::string> words{std::string(TOVEL_BUILD_DIR) + "/tovel"};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        winsize size{};
        size.ws_row = kRows;
        size.ws_col = kCols;
        pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            ::setenv("TERM", "vt100", 1);
            ::setenv("LC_ALL", "C.UTF-8", 1);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        if (master_ >= 0) ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
    }
    ~TovelOnATerminal() {
        if (pid_ > 0 && !exitCode_) {
            ::kill(pid_, SIGKILL);
            int status = 0;
            ::waitpid(pid_, &status, 0);
        }
        if (master_ >= 0) ::close(master_);
    }
    TovelOnATerminal(const TovelOnATerminal&) = delete;
    TovelOnATerminal& operator=(const TovelOnATerminal&) = delete;

    bool started() const { return pid_ > 0 && master_ >= 0; }
    const TerminalScreen& screen() const { return screen_; }

    // Reads what the program draws until `ready` holds for the screen.
    bool drawsUntil(const std::function<bool(const TerminalScreen&)>& ready,
                    std::chrono::milliseconds limit = 10000ms) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (!ready(screen_)) {
            if (std::chrono::steady_clock::now() > until) return false;
            drain(20);
        }
        return true;
    }

    void type(const std::string& keys) {
        [[maybe_unused]] const ssize_t n = ::write(master_, keys.data(), keys.size());
    }

    // The exit code once the program ended within `limit`; its output is
    // read meanwhile, so that it never waits on a full terminal.
    std::optional<int> exitCode(std::chrono::milliseconds limit) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (!exitCode_ && std::chrono::steady_clock::now() < until) {
            drain(10);
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_)
                exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return exitCode_;
    }

  private:
    void drain(int waitMs) {
        pollfd fd{master_, POLLIN, 0};
        if (::poll(&fd, 1, waitMs) <= 0) return;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(master_, buffer, sizeof buffer);
            if (n <= 0) return;
            screen_.feed(std::string(buffer, static_cast<std::size_t>(n)));
        }
    }

    TerminalScreen screen_;
    int master_ = -1;
    pid_t pid_ = -1;
    std::optional<int> exitCode_;
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
    if (::access(TOVEL_BUILD_DIR "/tovel", X_OK) != 0) GTEST_SKIP() << "tovel is not built";
    testing_support::TempUnitRoot root;
    const auto ports = freePorts(3);
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
    if (::access(TOVEL_BUILD_DIR "/tovel", X_OK) != 0) GTEST_SKIP() << "tovel is not built";
    testing_support::TempUnitRoot root;
    const auto ports = freePorts(3);
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
