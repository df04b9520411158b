// The tovel program end to end: started as a child process on free ports of
// the loopback interface, driven as remote test software would drive a unit.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "boards/error_log.h"
#include "platform/socket.h"
#include "tests/e2e/tovel_process.h"
#include "tests/support/test_support.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string kVersionRequest("\x05\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
const std::string kVersionReply("\x04\0\0\0\x04\0\0\0\xED\xEA\x02\0", 12);
const std::string kRebootRequest("\x05\x05\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16);
const std::string kRebootReply("\x04\0\0\0\0\0\0\0", 8);

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

// A client connection; closed with the object.
class Client {
  public:
    explicit Client(std::uint16_t port) {
        s_ = host::socket(host::AF_INET, host::SOCK_STREAM, host::IPPROTO_TCP);
        const auto address = host::makeSockaddr(host::INADDR_LOOPBACK, port);
        if (host::connect(s_, reinterpret_cast<const host::SOCKADDR*>(&address), sizeof address) !=
            0) {
            error_ = host::WSAGetLastError();
            close();
            return;
        }
        const DWORD timeout = 5000;
        host::setsockopt(s_, host::SOL_SOCKET, host::SO_RCVTIMEO,
                         reinterpret_cast<const char*>(&timeout), sizeof timeout);
    }
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return s_ != host::INVALID_SOCKET; }
    int error() const { return error_; }
    void close() {
        if (s_ != host::INVALID_SOCKET) host::closesocket(s_);
        s_ = host::INVALID_SOCKET;
    }
    bool send(const std::string& bytes) {
        return host::send(s_, bytes.data(), static_cast<int>(bytes.size()), 0) ==
               static_cast<int>(bytes.size());
    }
    // Exactly `count` bytes, or what came before the connection ended.
    std::string receive(std::size_t count) {
        std::string got;
        std::array<char, 512> buffer{};
        while (got.size() < count) {
            const int n =
                host::recv(s_, buffer.data(),
                           static_cast<int>(std::min(buffer.size(), count - got.size())), 0);
            if (n <= 0) break;
            got.append(buffer.data(), static_cast<std::size_t>(n));
        }
        return got;
    }
    std::string receiveUntilClosed() { return receive(1 << 20); }
    std::string ask(const std::string& request, std::size_t replyBytes) {
        return send(request) ? receive(replyBytes) : std::string("<send failed>");
    }

  private:
    host::SOCKET s_ = host::INVALID_SOCKET;
    int error_ = 0;
};

// Connects once the port listens (tovel boots its boards first).
std::unique_ptr<Client> connectWhenListening(std::uint16_t port,
                                             std::chrono::milliseconds limit = 8000ms) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
        auto client = std::make_unique<Client>(port);
        if (client->connected() || std::chrono::steady_clock::now() > until) return client;
        std::this_thread::sleep_for(20ms);
    }
}

std::string header(const std::string& reply, const std::string& name) {
    const auto at = reply.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "<missing>";
    const auto start = at + name.size() + 4;
    return reply.substr(start, reply.find("\r\n", start) - start);
}

class TovelProgram : public ::testing::Test {
  protected:
    testing_support::TempUnitRoot root;
    std::vector<std::uint16_t> ports = freePorts(3);
    std::uint16_t remotePort = ports[0];
    std::uint16_t telnetPort = ports[1];
    std::uint16_t httpPort = ports[2];
    std::unique_ptr<e2e::TovelProcess> tovel;

    void start(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"--root",     root.path(),
                                         "--port-map", "3445=" + std::to_string(remotePort),
                                         "--port-map", "23=" + std::to_string(telnetPort),
                                         "--port-map", "80=" + std::to_string(httpPort),
                                         "--headless"};
        args.insert(args.end(), extra.begin(), extra.end());
        tovel = std::make_unique<e2e::TovelProcess>(args, output());
        ASSERT_TRUE(tovel->started());
    }
    std::string output() const { return root.path() + "/tovel.out"; }
    std::string outputText() const {
        std::ifstream in(output());
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    int logCount(const std::wstring& fragment) const {
        int n = 0;
        for (const auto& line :
             testing_support::logLinesOf(root.hostPath(logFolder + L"\\usb.log")))
            if (line.find(fragment) != std::wstring::npos) ++n;
        return n;
    }
    bool logEventually(const std::wstring& fragment, int times = 1) const {
        const auto until = std::chrono::steady_clock::now() + 5s;
        while (logCount(fragment) < times) {
            if (std::chrono::steady_clock::now() > until) return false;
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }
    // The orderly end, as a service manager asks for it.
    void stopAndExpectCleanExit() {
        tovel->terminate();
        EXPECT_EQ(tovel->waitForExit(5s), 0) << outputText();
    }
};

TEST_F(TovelProgram, AnswersVersionTelnetAndHttpThenEndsCleanlyOnSigterm) {
    start({});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(client->ask(kVersionRequest, 12), kVersionReply);

    Client telnet(telnetPort);
    ASSERT_TRUE(telnet.connected());
    EXPECT_EQ(telnet.receiveUntilClosed(), "Unit is in Windows GUI mode.\r\n");

    Client page(httpPort);
    ASSERT_TRUE(page.send("GET / HTTP/1.1\r\nHost: unit\r\n\r\n"));
    const std::string reply = page.receiveUntilClosed();
    EXPECT_EQ(reply.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << reply;
    EXPECT_EQ(header(reply, "Content-Length"), "28");
    EXPECT_EQ(header(reply, "Date"), header(reply, "Expires"));
    EXPECT_EQ(reply.substr(reply.find("\r\n\r\n") + 4), "Unit is in Windows GUI mode.");

    Client script(httpPort);
    ASSERT_TRUE(script.send("GET /x.js HTTP/1.1\r\n\r\n"));
    const std::string scriptReply = script.receiveUntilClosed();
    EXPECT_EQ(header(scriptReply, "Content-Length"), "29");
    EXPECT_EQ(scriptReply.substr(scriptReply.find("\r\n\r\n") + 4),
              "window.location.reload(true);");

    stopAndExpectCleanExit();
    EXPECT_EQ(logCount(L"UsbCtlr::Shutdown() entered, have 4 ctlrs"), 1);
}

TEST_F(TovelProgram, OneClientPerBoardAndTheListenerReturnsWhenABoardIsFree) {
    start({"--boards", "t1,rf"});
    auto first = connectWhenListening(remotePort);
    ASSERT_TRUE(first->connected()) << outputText();
    EXPECT_EQ(first->ask(kVersionRequest, 12), kVersionReply);
    Client second(remotePort);
    ASSERT_TRUE(second.connected());
    EXPECT_EQ(second.ask(kVersionRequest, 12), kVersionReply);

    // Both boards are bound: 'theEar' closes and the stack refuses a third client.
    const auto until = std::chrono::steady_clock::now() + 3s;
    int refusal = 0;
    while (refusal == 0 && std::chrono::steady_clock::now() < until) {
        Client third(remotePort);
        if (!third.connected())
            refusal = third.error();
        else
            std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(refusal, static_cast<int>(WSAECONNREFUSED));
    EXPECT_EQ(logCount(L"Shutting down 'theEar'; not listening for further connections"), 1);

    first->close();
    auto fourth = connectWhenListening(remotePort, 3000ms);
    ASSERT_TRUE(fourth->connected());
    EXPECT_EQ(fourth->ask(kVersionRequest, 12), kVersionReply);
    EXPECT_TRUE(logEventually(L"Created Tovel 0x", 3));
    stopAndExpectCleanExit();
}

TEST_F(TovelProgram, WithoutBoardsAClientIsAcceptedAndDropped) {
    start({"--boards", "none"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(client->receiveUntilClosed(), "");
    EXPECT_TRUE(logEventually(L"NULL UsbCtlr on Accept!!; dropping connection!"));
    EXPECT_EQ(logCount(L"No Boards found!!!"), 1);
    stopAndExpectCleanExit();
}

TEST_F(TovelProgram, RebootIsAnsweredThenTheResetHelperRunsAndTheProcessExits22) {
    // The unit's own helper stands in place; tovel never replaces it.
    const std::string helper = root.hostPath(L"\\FlashFX Disk2\\Orvane\\TriggerWatchdog.exe");
    root.writeFile(L"\\FlashFX Disk2\\Orvane\\TriggerWatchdog.exe",
                   "#!/bin/sh\ntouch \"$0.ran\"\n");
    fs::permissions(helper, fs::perms::owner_all, fs::perm_options::add);
    start({"--boards", "t1"});
    auto client = connectWhenListening(remotePort);
    ASSERT_TRUE(client->connected()) << outputText();
    EXPECT_EQ(client->ask(kRebootRequest, 8), kRebootReply);
    const auto requested = std::chrono::steady_clock::now();
    client->close();

    const auto code = tovel->waitForExit(15s);
    const auto elapsed = std::chrono::steady_clock::now() - requested;
    ASSERT_EQ(code, 22) << outputText();
    // At least one full drain pass of 100 + 5000 ms. The requesting session is
    // still listed when the first pass starts, so a second pass follows the
    // one that removed it.
    EXPECT_GE(elapsed, 5100ms);
    EXPECT_LE(elapsed, 11500ms);
    // The helper runs on by itself after tovel has gone.
    const auto helperDeadline = std::chrono::steady_clock::now() + 3s;
    while (!fs::exists(helper + ".ran") && std::chrono::steady_clock::now() < helperDeadline)
        std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(fs::exists(helper + ".ran"));
    EXPECT_EQ(logCount(L"Controller Reboot Requested..."), 1);
    EXPECT_EQ(logCount(L"Restart Requested: Exiting TovelCtlr thread via reboot"), 1);
}

TEST_F(TovelProgram, BadBoardListIsRefusedBeforeAnythingStarts) {
    start({"--boards", "t1,xyz"});
    EXPECT_EQ(tovel->waitForExit(5s), 2);
    EXPECT_NE(outputText().find("unknown board kind \"xyz\""), std::string::npos) << outputText();
    EXPECT_FALSE(fs::exists(root.path() + "/registry.reg"));
}

}  // namespace
