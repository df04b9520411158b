#pragma once
// The tovel program as a child process on free ports of the loopback
// interface, and clients that talk to it as remote test software would.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/child_process.h"
#include "platform/socket.h"
#include "tests/support/program_run.h"
#include "tests/support/test_support.h"

namespace e2e {

using namespace std::chrono_literals;

extern const std::string kVersionRequest;
extern const std::string kVersionReply;
extern const std::string kRebootReply;

using testing_support::freePorts;

// A client connection; closed with the object.
class Client {
  public:
    explicit Client(std::uint16_t port);
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return s_ != host::INVALID_SOCKET; }
    int error() const { return error_; }
    void close();
    bool send(const std::string& bytes);
    // Exactly `count` bytes, or what came before the connection ended.
    std::string receive(std::size_t count);
    std::string receiveUntilClosed() { return receive(1 << 20); }
    std::string ask(const std::string& request, std::size_t replyBytes);

  private:
    host::SOCKET s_ = host::INVALID_SOCKET;
    int error_ = 0;
};

// Connects once the port listens (tovel boots its boards first).
std::unique_ptr<Client> connectWhenListening(std::uint16_t port,
                                             std::chrono::milliseconds limit = 8000ms);

// Protocol bytes (remproto's encoders) as the text a client sends, and back.
std::string asString(const std::vector<std::uint8_t>& bytes);
std::vector<std::uint8_t> bytesOf(const std::string& text);
// The status word that opens a reply (0xFFFFFFFF for a reply shorter than that).
std::uint32_t statusOf(const std::string& reply);

class TovelProgram : public ::testing::Test {
  protected:
    testing_support::TempUnitRoot root;
    std::vector<std::uint16_t> ports = freePorts(3);
    std::uint16_t remotePort = ports[0];
    std::uint16_t telnetPort = ports[1];
    std::uint16_t httpPort = ports[2];
    std::unique_ptr<host::ChildProcess> tovel;

    void start(const std::vector<std::string>& extra);
    std::string output() const { return root.path() + "/tovel.out"; }
    std::string outputText() const;
    // tovelsim on this unit's root, run to its end.
    testing_support::ProgramRun sim(const std::vector<std::string>& command) const;
    int logCount(const std::wstring& fragment) const;
    bool logEventually(const std::wstring& fragment, int times = 1) const;
    // The orderly end, as a service manager asks for it.
    void stopAndExpectCleanExit();
};

}  // namespace e2e
