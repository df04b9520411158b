#pragma once
// Internal to the host layer: handle objects that ReadFile/WriteFile reach.
#include <memory>

#include "platform/devices.h"
#include "platform/handles.h"

namespace host {

class StreamObject : public KernelObject {
  public:
    virtual bool read(void* buffer, DWORD size, DWORD* done, DWORD& error) = 0;
    virtual bool write(const void* buffer, DWORD size, DWORD* done, DWORD& error) = 0;
};

// An open stream device ("DSP1:"): forwards to the driver's instance.
class DeviceObject final : public StreamObject {
  public:
    explicit DeviceObject(std::shared_ptr<DeviceInstance> instance)
        : instance_(std::move(instance)) {}
    DeviceInstance& instance() { return *instance_; }
    bool read(void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        return instance_->read(buffer, size, done, error);
    }
    bool write(const void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        return instance_->write(buffer, size, done, error);
    }
    void onClose() override { instance_->close(); }

  private:
    std::shared_ptr<DeviceInstance> instance_;
};

// Whether a name is a stream device name such as "DSP1:" or "SPI4:".
bool isDeviceName(const std::wstring& name);
HANDLE openDevice(const std::wstring& name, DWORD access, DWORD shareMode);

}  // namespace host
