#include "sim/spi_counter.h"

#include <cstring>

#include "platform/devices.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace sim {
namespace {

constexpr DWORD kMaxTransfersPerExchange = 64;

enum Operation : BYTE { kClear = 0, kRead = 1, kWrite = 2, kLoad = 3 };
enum Register : BYTE { kMdr0 = 1, kMdr1 = 2, kDtr = 3, kCntr = 4, kOtr = 5, kStr = 6 };

BYTE operationOf(BYTE instruction) {
    return static_cast<BYTE>(instruction >> 6);
}
BYTE registerOf(BYTE instruction) {
    return static_cast<BYTE>((instruction >> 3) & 7);
}

DWORD ones(int bits) {
    return bits >= 32 ? 0xFFFFFFFFu : (DWORD{1} << bits) - 1;
}

class CounterInstance final : public host::DeviceInstance {
  public:
    explicit CounterInstance(std::shared_ptr<Ls7366rCounter> chip) : chip_(std::move(chip)) {}
    bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                   DWORD& error) override {
        (void)out, (void)outSize;
        if (returned) *returned = 0;
        return chip_->ioControl(code, in, inSize, error);
    }

  private:
    std::shared_ptr<Ls7366rCounter> chip_;
};

class CounterDriver final : public host::StreamDriver {
  public:
    explicit CounterDriver(std::shared_ptr<Ls7366rCounter> chip) : chip_(std::move(chip)) {}
    std::shared_ptr<host::DeviceInstance> open(DWORD access, DWORD shareMode,
                                               DWORD& error) override {
        (void)access, (void)shareMode, (void)error;
        return std::make_shared<CounterInstance>(chip_);
    }

  private:
    std::shared_ptr<Ls7366rCounter> chip_;
};

}  // namespace

Ls7366rCounter::Ls7366rCounter(BYTE chipSelect) : chipSelect_(chipSelect) {}

int Ls7366rCounter::counterBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return 4 - (mdr1_ & 3);
}

DWORD Ls7366rCounter::widthMask() const {
    return ones(8 * (4 - (mdr1_ & 3)));
}

void Ls7366rCounter::turn(int delta) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mdr1_ & 0x04) return;
    cntr_ = (cntr_ + static_cast<DWORD>(delta)) & widthMask();
}

DWORD Ls7366rCounter::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cntr_ & widthMask();
}

void Ls7366rCounter::setCount(DWORD value) {
    std::lock_guard<std::mutex> lock(mutex_);
    cntr_ = value & widthMask();
}

void Ls7366rCounter::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    mdr0_ = mdr1_ = str_ = 0;
    dtr_ = cntr_ = otr_ = 0;
    exchanges_ = 0;
    lastConfig_ = {};
    withhold_ = false;
}

BYTE Ls7366rCounter::mdr0() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mdr0_;
}

BYTE Ls7366rCounter::mdr1() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mdr1_;
}

int Ls7366rCounter::exchanges() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return exchanges_;
}

host::SpiBusConfig Ls7366rCounter::lastBusConfig() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastConfig_;
}

void Ls7366rCounter::withholdCompletion(bool withhold) {
    std::lock_guard<std::mutex> lock(mutex_);
    withhold_ = withhold;
}

bool Ls7366rCounter::ioControl(DWORD code, const void* in, DWORD inSize, DWORD& error) {
    if (code != host::IOCTL_SPI_EXCHANGE) {
        error = ERROR_NOT_SUPPORTED;
        return false;
    }
    host::SpiExchange* request = nullptr;
    if (in && inSize >= sizeof request) std::memcpy(&request, in, sizeof request);
    if (!request || !request->config || !request->tx || !request->rx || request->count == 0 ||
        request->count > kMaxTransfersPerExchange) {
        error = ERROR_INVALID_PARAMETER;
        return false;
    }
    HANDLE done = NULL_HANDLE;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++exchanges_;
        lastConfig_ = *request->config;
        const int bits =
            request->config->bitCountCode >= 31 ? 32 : request->config->bitCountCode + 1;
        for (DWORD i = 0; i < request->count; ++i)
            request->rx[i] = request->config->chipSelect == chipSelect_
                                 ? transfer(request->tx[i], bits)
                                 : ones(bits);
        if (!withhold_) done = request->event;
    }
    if (done != NULL_HANDLE) host::SetEvent(done);
    return true;
}

DWORD Ls7366rCounter::transfer(DWORD tx, int bits) {
    const int bytes = bits / 8;
    if (bytes == 0) return ones(bits);  // no whole instruction: the chip ignores it
    BYTE instruction = 0;
    DWORD rx = 0;
    for (int i = 0; i < bytes; ++i) {
        const BYTE in = static_cast<BYTE>(tx >> (bits - 8 * (i + 1)));
        BYTE out = 0xFF;
        if (i == 0) {
            instruction = in;
            if (operationOf(instruction) == kRead && registerOf(instruction) == kCntr) otr_ = cntr_;
            if (operationOf(instruction) == kClear || operationOf(instruction) == kLoad)
                answer(instruction, 0, in);
        } else {
            out = answer(instruction, i - 1, in);
        }
        rx = (rx << 8) | out;
    }
    return rx;
}

// Carries out byte `index` after the instruction (or the instruction itself
// for clear and load) and answers what the chip shifts out meanwhile.
BYTE Ls7366rCounter::answer(BYTE instruction, int index, BYTE in) {
    const int width = 4 - (mdr1_ & 3);
    auto byteOf = [width, index](DWORD value) {
        return index < width ? static_cast<BYTE>(value >> (8 * (width - 1 - index))) : BYTE{0xFF};
    };
    switch (operationOf(instruction)) {
        case kClear:
            if (registerOf(instruction) == kMdr0) mdr0_ = 0;
            if (registerOf(instruction) == kMdr1) mdr1_ = 0;
            if (registerOf(instruction) == kCntr) cntr_ = 0;
            if (registerOf(instruction) == kStr) str_ = 0;
            return 0xFF;
        case kLoad:
            if (registerOf(instruction) == kCntr) cntr_ = dtr_ & widthMask();
            if (registerOf(instruction) == kOtr) otr_ = cntr_;
            return 0xFF;
        case kRead:
            switch (registerOf(instruction)) {
                case kMdr0:
                    return index == 0 ? mdr0_ : BYTE{0xFF};
                case kMdr1:
                    return index == 0 ? mdr1_ : BYTE{0xFF};
                case kStr:
                    return index == 0 ? str_ : BYTE{0xFF};
                case kCntr:
                case kOtr:
                    return byteOf(otr_);
                default:
                    return 0xFF;
            }
        case kWrite:
            switch (registerOf(instruction)) {
                case kMdr0:
                    if (index == 0) mdr0_ = in;
                    break;
                case kMdr1:
                    if (index == 0) {
                        mdr1_ = in;
                        cntr_ &= widthMask();
                    }
                    break;
                case kDtr:
                    if (index < width) dtr_ = (dtr_ << 8) | in;
                    break;
                default:
                    break;
            }
            return 0xFF;
    }
    return 0xFF;
}

std::shared_ptr<Ls7366rCounter> installSpiCounter(int port, BYTE chipSelect) {
    auto chip = std::make_shared<Ls7366rCounter>(chipSelect);
    host::registerStreamDriver(host::wformat(L"SPI%d:", port),
                               std::make_shared<CounterDriver>(chip));
    return chip;
}

void uninstallSpiCounter(int port) {
    host::registerStreamDriver(host::wformat(L"SPI%d:", port), nullptr);
}

}  // namespace sim
