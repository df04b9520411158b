#include "tests/tovelctl/fake_controller.h"

#include <algorithm>
#include <memory>

#include "boards/error_log.h"
#include "server/remote_protocol.h"
#include "server/session_core.h"

using namespace remproto;

namespace {
std::wstring image() {
    return installFolder + L"\\fake.cof";
}
}  // namespace

// Sends the core's replies, or spoils them as the test asked.
class FakeController::Sink final : public ReplySink {
  public:
    Sink(FakeController& fake, host::SOCKET client) : fake_(fake), client_(client) {}
    int sendReply(std::span<const std::uint8_t> reply) override {
        if (fake_.quiet_) return static_cast<int>(reply.size());
        std::vector<std::uint8_t> bytes(reply.begin(), reply.end());
        if (fake_.bogusLength_) writeU32le(bytes, 4, 100000);
        return host::send(client_, reinterpret_cast<const char*>(bytes.data()),
                          static_cast<int>(bytes.size()), 0);
    }
    void sendFailed(const wchar_t*) override {}

  private:
    FakeController& fake_;
    host::SOCKET client_;
};

FakeController::FakeController(std::uint16_t port) {
    root_.writeFile(image(), "");  // the install folder, where downloads go
    listener_ = host::socket(host::AF_INET, host::SOCK_STREAM, 0);
    host::SOCKADDR_IN sa = host::makeSockaddr(host::INADDR_LOOPBACK, port);
    host::bind(listener_, reinterpret_cast<host::SOCKADDR*>(&sa), sizeof sa);
    host::listen(listener_, 4);
    port_ = host::localPort(listener_);
    thread_ = std::thread([this] { run(); });
}

FakeController::~FakeController() {
    stopping_ = true;
    host::closesocket(listener_);
    host::SOCKET client = client_.exchange(host::INVALID_SOCKET);
    if (client != host::INVALID_SOCKET) host::closesocket(client);
    thread_.join();
}

std::vector<std::vector<std::uint8_t>> FakeController::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::vector<std::uint8_t> FakeController::cofFile() const {
    const std::string bytes = root_.readFile(image());
    return {bytes.begin(), bytes.end()};
}

dspStatus FakeController::primitiveGetData(BYTE* buffer, int* size) {
    wire::putFrameHeader(std::span(buffer, static_cast<std::size_t>(*size)), wire::kDeviceDsp, 0x21,
                         static_cast<std::uint16_t>(*size - kDspPacketHeaderSize));
    return dspOk;
}

dspStatus FakeController::primitiveGetStatus(BYTE* buffer, DWORD* size) {
    std::fill_n(buffer, *size, BYTE{0});
    buffer[0] = 1;
    buffer[2] = 4;
    buffer[63] = 37;
    return dspOk;
}

dspStatus FakeController::atomicGet(std::uint32_t, const BYTE*, int, BYTE, BYTE* reply,
                                    int* replyLength) {
    for (int i = 0; i < *replyLength; ++i) reply[i] = static_cast<BYTE>(i);
    return dspOk;
}

void FakeController::run() {
    while (!stopping_) {
        host::SOCKET client = host::accept(listener_, nullptr, nullptr);
        if (client == host::INVALID_SOCKET) return;
        ++connections_;
        client_ = client;
        if (!stopping_) serve(client);
        if (client_.exchange(host::INVALID_SOCKET) != host::INVALID_SOCKET)
            host::closesocket(client);
    }
}

// Frames what arrives as a session does, keeps each request and has the core serve it.
void FakeController::serve(host::SOCKET client) {
    auto buffer = std::make_unique<ReceiveBuffer>();
    Sink sink(*this, client);
    SessionBoard& board = *this;
    auto core = std::make_unique<SessionCore>(board, static_cast<SessionOwner*>(this), sink);
    int served = 0;
    for (;;) {
        auto space = buffer->freeSpace();
        int n = host::recv(client, reinterpret_cast<char*>(space.data()),
                           static_cast<int>(space.size()), 0);
        if (n <= 0) return;
        buffer->commit(static_cast<std::size_t>(n));
        if (!framingStarts(buffer->size())) continue;
        for (;;) {
            FrameResult f = buffer->frame();
            if (f.status != FrameStatus::Request) break;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.emplace_back(buffer->held().begin(), buffer->held().begin() + f.total);
            }
            if (++served == closeAt_) return;
            core->serve(f.request);
            buffer->consume(f.total);
            if (buffer->empty()) break;
        }
    }
}
