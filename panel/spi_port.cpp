#include "panel/spi_port.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <mutex>

#include "panel/error_text.h"
#include "platform/debug_out.h"
#include "platform/devices.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/text.h"

namespace {

constexpr DWORD kRandomAccessHint = 0x10000000;  // FILE_FLAG_RANDOM_ACCESS
constexpr DWORD kWaitAbandoned = 0x80;           // WAIT_ABANDONED

}  // namespace

SpiPortError::SpiPortError(const std::wstring& text)
    : std::runtime_error(host::narrow(text)), text_(text) {}

SpiPort* SpiPort::getPort(int port, int chipSelect) {
    if (port < firstPort || port > lastPort)
        throw SpiPortError(L"Invalid Port Number!! Must be 1 - 4");
    // Never destroyed: a thread may still be talking to its chip while the
    // process ends.
    static std::array<SpiPort*, lastPort> ports{};
    static std::mutex portsMutex;
    std::lock_guard<std::mutex> guard(portsMutex);
    SpiPort*& slot = ports[static_cast<std::size_t>(port - firstPort)];
    if (!slot) slot = new SpiPort(port, chipSelect);
    return slot;
}

SpiPort::SpiPort(int port, int chipSelect) : port_(port) {
    panel::printLastError(L"Pre create Error = ");
    const std::wstring name = host::wformat(L"SPI%d:", port);
    handle_ = host::CreateFileW(name.c_str(), host::GENERIC_READ | host::GENERIC_WRITE,
                                host::FILE_SHARE_READ | host::FILE_SHARE_WRITE, host::OPEN_EXISTING,
                                kRandomAccessHint);
    if (handle_ == INVALID_HANDLE_VALUE) throw SpiPortError(L"SPI Port not found!");
    panel::printLastError(L"Post create Error = ");
    event_ = host::CreateEventW(false, false, nullptr);
    panel::printLastError(L"Post create Event = ");

    config_.chipSelect = static_cast<BYTE>(chipSelect);
    config_.clockHz = clockHz;
    config_.bitCountCode = bitCountCode(16);
    transfer_.request.config = &config_;
    transfer_.request.tx = &tx_;
    transfer_.request.rx = &rx_;
    transfer_.request.count = 1;
    transfer_.request.event = event_;
    transfer_.requestPointer = &transfer_.request;
    static_assert(offsetof(decltype(transfer_), request) >= sizeof(host::SpiExchange*));
    static_assert(sizeof(transfer_) >= host::SPI_EXCHANGE_INPUT_SIZE);
}

BYTE SpiPort::bitCountCode(int bits) {
    if (bits <= 1) return 0;
    if (bits <= 8) return 7;
    if (bits <= 16) return 15;
    return 31;
}

bool SpiPort::exchange() {
    return host::DeviceIoControl(handle_, host::IOCTL_SPI_EXCHANGE, &transfer_.requestPointer,
                                 host::SPI_EXCHANGE_INPUT_SIZE, nullptr, 0, nullptr) != FALSE_;
}

bool SpiPort::writeSPI(DWORD value, int bits) {
    host::LockGuard guard(lock_);
    panel::printLastError(L"PreError = ");
    tx_ = value;
    setBits(bits);
    if (!exchange()) {
        const std::wstring error = panel::lastErrorText();
        host::NKDbgPrintfW(L"CSPI_TestDlg::writeSPI DeviceIOControl fails!\n");
        panel::printErrorText(L"Error = ", error);
        return false;
    }
    if (event_ == NULL_HANDLE) return false;
    switch (host::WaitForSingleObject(event_, exchangeTimeoutMs)) {
        case WAIT_OBJECT_0:
            return true;
        case kWaitAbandoned:
            host::NKDbgPrintfW(L"CSPI_TestDlg::writeSPI WaitForSingleObject abandoned!\n");
            return false;
        case WAIT_TIMEOUT: {
            const std::wstring error = panel::lastErrorText();
            host::NKDbgPrintfW(L"CSPI_TestDlg::writeSPI WaitForSingleObject timeout!\n");
            panel::printErrorText(L"Error = ", error);
            return false;
        }
        default: {
            const std::wstring error = panel::lastErrorText();
            host::NKDbgPrintfW(L"CSPI_TestDlg::writeSPI WaitForSingleObject error!\n");
            panel::printErrorText(L"Error = ", error);
            return false;
        }
    }
}

DWORD SpiPort::readSPI(DWORD command, int bits) {
    host::LockGuard guard(lock_);
    tx_ = (command & 0xFFu) << 24;
    setBits(bits);
    if (!exchange()) {
        // The answer is then made from whatever the last exchange left.
        const std::wstring error = panel::lastErrorText();
        host::NKDbgPrintfW(L"CSPI_TestDlg::readSPI DeviceIOControl fails!\n");
        panel::printErrorText(L"Error = ", error);
    } else if (host::WaitForSingleObject(event_, exchangeTimeoutMs) != WAIT_OBJECT_0) {
        host::NKDbgPrintfW(L"CSPI_TestDlg::readSPI WaitForSingleObject error!\n");
        return failedRead;
    }
    // Drop the byte clocked in during the command and right-align what came
    // after it in a `bits` transfer (0 or fewer bits answer 0, more than 32
    // count as 32).
    const DWORD data = rx_ & 0x00FFFFFFu;
    const int shift = bits >= 32 ? 0 : 32 - std::max(bits, 0);
    rx_ = shift >= 32 ? 0 : data >> shift;
    return rx_;
}
