#include "tests/tovelctl/fake_controller.h"

#include <memory>

#include "server/remote_protocol.h"

using namespace remproto;

FakeController::FakeController(std::uint16_t port) {
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
    std::lock_guard<std::mutex> lock(mutex_);
    return cof_;
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

void FakeController::serve(host::SOCKET client) {
    auto buffer = std::make_unique<ReceiveBuffer>();
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
            std::vector<std::uint8_t> request(buffer->held().begin(),
                                              buffer->held().begin() + f.total);
            buffer->consume(f.total);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
            }
            if (++served == closeAt_) return;
            bool reply = true;
            auto bytes = answer(request, reply);
            if (reply && !quiet_)
                host::send(client, reinterpret_cast<const char*>(bytes.data()),
                           static_cast<int>(bytes.size()), 0);
            if (buffer->empty()) break;
        }
    }
}

std::vector<std::uint8_t> FakeController::answer(const std::vector<std::uint8_t>& request,
                                                 bool& reply) {
    FrameResult f = frameRequest(request);
    const RemRequest& q = f.request;
    std::vector<std::uint8_t> data;
    std::uint32_t status = 0;
    switch (q.opcode) {
        case Rem_PrimSend:
            reply = false;
            return {};
        case Rem_PrimGet:
            data.resize(q.primGetLength());
            wire::putFrameHeader(data, wire::kDeviceDsp, 0x21, q.shortSize);
            break;
        case Rem_GetStatus:
            data.resize(kStatusReplyLength);
            data[1] = 1;
            data[3] = 4;
            data[64] = 37;
            break;
        case Rem_AtomicGet:
            data.resize(std::min<std::size_t>(q.replyLength, kReplyDataMax));
            for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i);
            break;
        case Rem_AtomicSend:
            break;
        case Rem_Control: {
            std::lock_guard<std::mutex> lock(mutex_);
            switch (q.command) {
                case RemCtl_EnumBoards:
                    status = 4;
                    data = {2};
                    break;
                case RemCtl_CofStart:
                    cof_.clear();
                    break;
                case RemCtl_CofData:
                    cof_.insert(cof_.end(), q.payload.begin(), q.payload.end());
                    break;
                case RemCtl_CofEnd:
                    break;
                case RemCtl_DspBoot:
                    status = 15;
                    break;
                case RemCtl_Reboot:
                case RemCtl_CmdLineControl:
                    status = 4;
                    break;
                case RemCtl_Version:
                    status = 4;
                    data.resize(4);
                    writeU32le(data, 0, kServerVersion);
                    break;
                default:
                    status = 4;
                    data = {0};
            }
            break;
        }
    }
    auto bytes = encodeReply(status, data);
    if (bogusLength_) writeU32le(bytes, 4, 100000);
    return bytes;
}
