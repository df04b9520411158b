#include "tests/dsplink/scripted_dsp.h"

#include <algorithm>
#include <cstring>

#include "dsplink/comm_policy_usb.h"
#include "platform/files.h"

namespace linktest {
namespace {

class Instance : public host::DeviceInstance {
  public:
    explicit Instance(std::shared_ptr<ScriptedDsp> dsp) : dsp_(std::move(dsp)) {}
    bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                   DWORD& error) override {
        return dsp_->ioControl(code, in, inSize, out, outSize, returned, error);
    }
    void close() override { dsp_->onClose(); }

  private:
    std::shared_ptr<ScriptedDsp> dsp_;
};

}  // namespace

std::shared_ptr<ScriptedDsp> ScriptedDsp::install() {
    auto dsp = std::make_shared<ScriptedDsp>();
    host::registerStreamDriver(L"DSP1:", dsp);
    return dsp;
}

ScriptedDsp::~ScriptedDsp() = default;

HANDLE ScriptedDsp::open() {
    return host::CreateFileW(L"DSP1:", host::GENERIC_READ | host::GENERIC_WRITE, 0,
                             host::OPEN_EXISTING);
}

std::shared_ptr<host::DeviceInstance> ScriptedDsp::open(DWORD, DWORD, DWORD&) {
    return std::make_shared<Instance>(shared_from_this());
}

void ScriptedDsp::failNext(int count, DWORD error) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < count; ++i) failures_.push_back(error);
}

void ScriptedDsp::failSendsOfDevice(BYTE device, int skip, DWORD error) {
    std::lock_guard<std::mutex> lock(mutex_);
    failDevice_ = device;
    failDeviceSkip_ = skip;
    failDeviceError_ = error;
}

void ScriptedDsp::pushStatus(BYTE status, BYTE sequence) {
    std::lock_guard<std::mutex> lock(mutex_);
    statusQueue_.push_back({status, sequence});
}

void ScriptedDsp::setReply(std::vector<BYTE> frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    reply_ = std::move(frame);
}

void ScriptedDsp::setCallTime(std::shared_ptr<host::ManualClock> clock, DWORD ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    clock_ = std::move(clock);
    callMs_ = ms;
}

std::vector<IoCall> ScriptedDsp::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

int ScriptedDsp::countCalls(DWORD code) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count_if(calls_.begin(), calls_.end(),
                                          [&](const IoCall& c) { return c.code == code; }));
}

std::vector<std::vector<BYTE>> ScriptedDsp::sentFrames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::vector<BYTE>> frames;
    for (const auto& c : calls_)
        if (c.code == wire::IOCTL_DSP_SEND_DATA && !c.failed) frames.push_back(c.sent);
    return frames;
}

int ScriptedDsp::closes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closes_;
}

void ScriptedDsp::onClose() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++closes_;
}

bool ScriptedDsp::ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                            DWORD* returned, DWORD& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    IoCall call;
    call.code = code;
    call.inIsNull = in == nullptr;
    call.inSize = inSize;
    call.outIsNull = out == nullptr;
    call.outSize = outSize;
    call.returnedIsNull = returned == nullptr;
    call.tick = host::GetTickCount();
    if (code == wire::IOCTL_DSP_SEND_DATA && out)
        call.sent.assign(static_cast<BYTE*>(out), static_cast<BYTE*>(out) + outSize);
    if (clock_ && callMs_) clock_->advance(callMs_);

    DWORD failure = 0;
    if (!failures_.empty()) {
        failure = failures_.front();
        failures_.pop_front();
    } else if (failDevice_ && !call.sent.empty() && call.sent[0] == failDevice_) {
        if (failDeviceSkip_ > 0)
            --failDeviceSkip_;
        else
            failure = failDeviceError_;
    }
    if (failure) {
        call.failed = true;
        calls_.push_back(std::move(call));
        error = failure;
        return false;
    }

    switch (code) {
        case wire::IOCTL_DSP_GET_STATUS: {
            if (!statusQueue_.empty()) {
                current_ = statusQueue_.front();
                statusQueue_.pop_front();
            }
            auto* block = static_cast<BYTE*>(in);
            std::memset(block, 0, inSize);
            if (inSize > 0) block[0] = 1;
            if (inSize > wire::kStatusOffset) block[wire::kStatusOffset] = current_.status;
            if (inSize > wire::kSequenceOffset) block[wire::kSequenceOffset] = current_.sequence;
            break;
        }
        case wire::IOCTL_DSP_SEND_DATA:
            if (returned) *returned = outSize;
            break;
        case wire::IOCTL_DSP_GET_DATA: {
            auto* buffer = static_cast<BYTE*>(in);
            std::memset(buffer, 0, inSize);
            if (!reply_.empty())
                std::memcpy(buffer, reply_.data(), std::min<std::size_t>(inSize, reply_.size()));
            break;
        }
        default:
            call.failed = true;
            calls_.push_back(std::move(call));
            error = ERROR_INVALID_PARAMETER;
            return false;
    }
    calls_.push_back(std::move(call));
    return true;
}

}  // namespace linktest
