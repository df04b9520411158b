#include "sim_fixture.h"

#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"

namespace simtest {

DspClient::DspClient()
    : handle_(host::CreateFileW(L"DSP1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                                host::OPEN_EXISTING)) {}

DspClient::~DspClient() {
    if (valid()) host::CloseHandle(handle_);
}

bool DspClient::status(sim::StatusBlock& block, DWORD size) {
    std::vector<BYTE> buffer(size, 0xEE);
    if (!host::DeviceIoControl(handle_, wire::IOCTL_DSP_GET_STATUS, buffer.data(), size, nullptr, 0,
                               nullptr)) {
        lastError = host::GetLastError();
        return false;
    }
    std::copy_n(buffer.begin(), std::min<std::size_t>(size, block.size()), block.begin());
    return true;
}

bool DspClient::send(std::span<const BYTE> frame) {
    DWORD done = 0;
    if (!host::DeviceIoControl(handle_, wire::IOCTL_DSP_SEND_DATA, nullptr, 0,
                               const_cast<BYTE*>(frame.data()), static_cast<DWORD>(frame.size()),
                               &done)) {
        lastError = host::GetLastError();
        return false;
    }
    return true;
}

bool DspClient::getData(std::vector<BYTE>& frame, DWORD size) {
    frame.assign(size, 0);
    if (!host::DeviceIoControl(handle_, wire::IOCTL_DSP_GET_DATA, frame.data(), size, nullptr, 0,
                               nullptr)) {
        lastError = host::GetLastError();
        return false;
    }
    return true;
}

sim::StatusBlock DspClient::status() {
    sim::StatusBlock block{};
    EXPECT_TRUE(status(block)) << "status read failed with " << lastError;
    return block;
}

void DspClient::command(BYTE opcode, std::span<const BYTE> payload) {
    EXPECT_TRUE(send(sim::makeFrame(wire::kDeviceDsp, opcode, payload)))
        << "send failed with " << lastError;
}

std::vector<BYTE> DspClient::reply(DWORD size) {
    std::vector<BYTE> frame;
    EXPECT_TRUE(getData(frame, size)) << "get data failed with " << lastError;
    return frame;
}

void SimBusTest::SetUp() {
    scopedClock_ = std::make_unique<host::ScopedClock>(clock_);
    bus_ = sim::installDspBus(/*announceChanges=*/false);
}

void SimBusTest::TearDown() {
    sim::uninstallDspBus();
    bus_.reset();
    scopedClock_.reset();
}

std::vector<BYTE> bytes(std::initializer_list<int> values) {
    std::vector<BYTE> out;
    for (int v : values) out.push_back(static_cast<BYTE>(v));
    return out;
}

}  // namespace simtest
