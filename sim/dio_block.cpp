#include "sim/dio_block.h"

#include <cstring>
#include <vector>

#include "platform/devices.h"
#include "platform/dio_spi.h"
#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace sim {
namespace {

DWORD bitOf(int line) {
    return DWORD{1} << line;
}

class DioInstance final : public host::DeviceInstance {
  public:
    explicit DioInstance(std::shared_ptr<DioBlock> block) : block_(std::move(block)) {}
    bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                   DWORD& error) override {
        (void)out, (void)outSize;
        if (returned) *returned = 0;
        if (code == host::IOCTL_DIO_NOTIFY_CHANGES) {
            HANDLE event = NULL_HANDLE;
            if (!in || inSize < sizeof event) {
                error = ERROR_INVALID_PARAMETER;
                return false;
            }
            std::memcpy(&event, in, sizeof event);
            block_->notifyChanges(this, event);
            return true;
        }
        return block_->ioControl(code, in, inSize, error, this);
    }
    void close() override { block_->notifyChanges(this, NULL_HANDLE); }
    bool read(void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        return block_->read(buffer, size, done, error);
    }
    bool write(const void* buffer, DWORD size, DWORD* done, DWORD& error) override {
        return block_->write(buffer, size, done, error, this);
    }

  private:
    std::shared_ptr<DioBlock> block_;
};

class DioStreamDriver final : public host::StreamDriver {
  public:
    explicit DioStreamDriver(std::shared_ptr<DioBlock> block) : block_(std::move(block)) {}
    // The unit's driver does not enforce share modes: the I/O point driver and
    // the power-fail handler both hold it open, each unshared.
    std::shared_ptr<host::DeviceInstance> open(DWORD access, DWORD shareMode,
                                               DWORD& error) override {
        (void)access, (void)shareMode, (void)error;
        return std::make_shared<DioInstance>(block_);
    }

  private:
    std::shared_ptr<DioBlock> block_;
};

}  // namespace

DioBlock::DioBlock() = default;

DioBlock::~DioBlock() {
    for (HANDLE event : events_)
        if (event != NULL_HANDLE) host::CloseHandle(event);
}

void DioBlock::setInput(int line, bool level) {
    if (line < 0 || line >= lineCount) return;
    std::unique_lock<std::mutex> lock(mutex_);
    applyInputs(level ? inputs_ | bitOf(line) : inputs_ & ~bitOf(line), lock);
}

void DioBlock::setInputs(DWORD levels) {
    std::unique_lock<std::mutex> lock(mutex_);
    applyInputs(levels, lock);
}

void DioBlock::applyInputs(DWORD newInputs, std::unique_lock<std::mutex>& lock) {
    const DWORD before = levelsLocked();
    const DWORD rose = ~inputs_ & newInputs;
    const DWORD fell = inputs_ & ~newInputs;
    inputs_ = newInputs;
    const DWORD edges = ((rose & rising_) | (fell & falling_)) & ~mask_ & ~direction_;
    if (levelsLocked() != before) noticeChange();
    lock.unlock();
    report(edges);
}

void DioBlock::notifyChanges(const void* owner, HANDLE event) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(watchers_, [owner](const auto& watcher) { return watcher.first == owner; });
    if (event != NULL_HANDLE) watchers_.emplace_back(owner, event);
}

void DioBlock::noticeChange(const void* by) {
    for (const auto& [owner, event] : watchers_)
        if (owner != by) host::SetEvent(event);
}

void DioBlock::report(DWORD lines) {
    std::vector<HANDLE> events;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int line = 0; line < lineCount; ++line)
            if ((lines & bitOf(line)) && events_[line] != NULL_HANDLE)
                events.push_back(events_[line]);
    }
    for (HANDLE event : events) host::SetEvent(event);
}

HANDLE DioBlock::eventFor(int line) {
    if (events_[line] == NULL_HANDLE) {
        const std::wstring name = host::wformat(L"DIOInt%d", line);
        events_[line] = host::CreateEventW(false, false, name.c_str());
    }
    return events_[line];
}

DWORD DioBlock::inputs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return inputs_;
}

DWORD DioBlock::levels() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return levelsLocked();
}

DWORD DioBlock::outputs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return outputs_;
}

bool DioBlock::output(int line) const {
    return line >= 0 && line < lineCount && (outputs() & bitOf(line)) != 0;
}

DWORD DioBlock::direction() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return direction_;
}

DWORD DioBlock::interruptMask() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mask_;
}

DWORD DioBlock::armedRising() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return rising_;
}

DWORD DioBlock::armedFalling() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return falling_;
}

int DioBlock::reads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
}

int DioBlock::writes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writes_;
}

int DioBlock::directionRequests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return directionRequests_;
}

void DioBlock::failReads(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failReads_ != fail) noticeChange();
    failReads_ = fail;
}

bool DioBlock::read(void* buffer, DWORD size, DWORD* done, DWORD& error) {
    if (done) *done = 0;
    if (!buffer || size < sizeof(DWORD)) {
        error = ERROR_INVALID_PARAMETER;
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++reads_;
    if (failReads_) {
        error = ERROR_GEN_FAILURE;
        return false;
    }
    const DWORD levels = levelsLocked();
    std::memcpy(buffer, &levels, sizeof levels);
    if (done) *done = sizeof levels;
    return true;
}

bool DioBlock::write(const void* buffer, DWORD size, DWORD* done, DWORD& error, const void* by) {
    if (done) *done = 0;
    if (!buffer || size < sizeof(DWORD)) {
        error = ERROR_INVALID_PARAMETER;
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++writes_;
    const DWORD before = levelsLocked();
    std::memcpy(&outputs_, buffer, sizeof outputs_);
    if (levelsLocked() != before) noticeChange(by);
    if (done) *done = sizeof outputs_;
    return true;
}

bool DioBlock::ioControl(DWORD code, const void* in, DWORD inSize, DWORD& error, const void* by) {
    auto word = [in](int i) {
        DWORD value;
        std::memcpy(&value, static_cast<const BYTE*>(in) + i * sizeof(DWORD), sizeof value);
        return value;
    };
    auto needWords = [&](DWORD count) {
        if (in && inSize >= count * sizeof(DWORD)) return true;
        error = ERROR_INVALID_PARAMETER;
        return false;
    };
    std::lock_guard<std::mutex> lock(mutex_);
    switch (code) {
        case host::IOCTL_DIO_SET_DIRECTION: {
            if (!needWords(1)) return false;
            ++directionRequests_;
            const DWORD before = levelsLocked();
            direction_ = word(0);
            if (levelsLocked() != before) noticeChange(by);
            return true;
        }
        case host::IOCTL_DIO_MASK_INTERRUPTS:
            if (!needWords(1)) return false;
            mask_ = word(0);
            return true;
        case host::IOCTL_DIO_ARM_INTERRUPTS: {
            if (!needWords(2)) return false;
            const DWORD lines = word(0);
            const DWORD edges = word(1);
            rising_ = (edges & host::DIO_EDGE_RISING) ? rising_ | lines : rising_ & ~lines;
            falling_ = (edges & host::DIO_EDGE_FALLING) ? falling_ | lines : falling_ & ~lines;
            for (int line = 0; line < lineCount; ++line)
                if ((lines & bitOf(line)) && edges != 0) eventFor(line);
            return true;
        }
        default:
            error = ERROR_NOT_SUPPORTED;
            return false;
    }
}

std::shared_ptr<DioBlock> installDioBlock(const std::wstring& deviceName) {
    auto block = std::make_shared<DioBlock>();
    host::registerStreamDriver(deviceName, std::make_shared<DioStreamDriver>(block));
    return block;
}

void uninstallDioBlock(const std::wstring& deviceName) {
    host::registerStreamDriver(deviceName, nullptr);
}

}  // namespace sim
