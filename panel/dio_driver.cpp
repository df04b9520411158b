#include "panel/dio_driver.h"

#include <algorithm>
#include <mutex>

#include "panel/io_point.h"
#include "platform/clock.h"
#include "platform/devices.h"
#include "platform/dio_spi.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/thread.h"

namespace {

// At exit only the thread of the process's driver is stopped; the object
// itself stays, because output points (the LEDs) and the threads that blink
// them live until the very end and may still write through it.
struct StopAtExit {
    DioDriver* driver;
    ~StopAtExit() { driver->halt(); }
};

}  // namespace

DioDriver* DioDriver::instance() {
    static DioDriver* const driver = new DioDriver(L"DIO1:", 10);
    static const StopAtExit stopper{driver};
    return driver;
}

DioDriver::DioDriver(std::wstring deviceName, DWORD period)
    : IODriver(period), deviceName_(std::move(deviceName)) {
    if (start()) {
        host::LockGuard points(pointsLock_);
        sendDirection();
    }
}

DioDriver::~DioDriver() {
    halt();
    host::LockGuard points(pointsLock_);
    for (IOPoint*& point : points_) {
        if (point) point->forgetRegistration(this);
        point = nullptr;
    }
}

void DioDriver::registerPoint(IOPoint* point, int line) {
    if (!point || line < 0 || line >= lineCount) return;
    host::LockGuard points(pointsLock_);
    const DWORD bit = DWORD{1} << line;
    if (point->isInput())
        direction_ &= ~bit;
    else
        direction_ |= bit;
    IOPoint* replaced = points_[line];
    points_[line] = point;
    point->noteRegistration(this);
    if (replaced && replaced != point) release(replaced);
    sendDirection();
}

void DioDriver::write(bool level, IOPoint* point) {
    host::LockGuard points(pointsLock_);
    for (int line = 0; line < lineCount; ++line) {
        if (points_[line] != point) continue;
        if (!point->isOutput()) return;
        const DWORD bit = DWORD{1} << line;
        if (level)
            outputs_ |= bit;
        else
            outputs_ &= ~bit;
        // Without a device (it could not be opened) the write fails silently.
        host::LockGuard io(ioLock_);
        DWORD written = 0;
        host::WriteFile(handle_, &outputs_, sizeof outputs_, &written);
        return;
    }
}

void DioDriver::detach(IOPoint* point) {
    host::LockGuard points(pointsLock_);
    for (auto& slot : points_)
        if (slot == point) slot = nullptr;
}

void DioDriver::release(IOPoint* point) {
    for (IOPoint* slot : points_)
        if (slot == point) return;  // still at another line
    point->forgetRegistration(this);
}

DWORD DioDriver::direction() const {
    host::LockGuard points(pointsLock_);
    return direction_;
}

DWORD DioDriver::outputs() const {
    host::LockGuard points(pointsLock_);
    return outputs_;
}

IOPoint* DioDriver::pointAt(int line) const {
    if (line < 0 || line >= lineCount) return nullptr;
    host::LockGuard points(pointsLock_);
    return points_[line];
}

void DioDriver::sendDirection() {
    host::LockGuard io(ioLock_);
    DWORD direction = direction_;
    host::DeviceIoControl(handle_, host::IOCTL_DIO_SET_DIRECTION, &direction, sizeof direction,
                          nullptr, 0, nullptr);
}

void DioDriver::run() {
    const HANDLE device =
        host::CreateFileW(deviceName_.c_str(), host::GENERIC_READ | host::GENERIC_WRITE, 0,
                          host::OPEN_EXISTING, host::FILE_ATTRIBUTE_NORMAL);
    {
        host::LockGuard io(ioLock_);
        handle_ = device;
    }
    // Asked before the constructor returns, so the notice covers every change
    // made after it.
    HANDLE wake = wakeEvent();
    const bool reportsChanges = device != INVALID_HANDLE_VALUE &&
                                host::DeviceIoControl(device, host::IOCTL_DIO_NOTIFY_CHANGES, &wake,
                                                      sizeof wake, nullptr, 0, nullptr);
    ready();
    if (device == INVALID_HANDLE_VALUE) return;
    pollUntilStopped(device, reportsChanges);
    host::LockGuard io(ioLock_);
    host::CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
}

// The rounds keep to one 10 ms raster from the first. When the device reports
// its changes, a round that would find nothing changed is skipped: the thread
// sleeps until a change is reported and reads at the next instant of the
// raster, so it sees what, and when, a round every period would have seen
// without waking 100 times a second on an idle unit.
void DioDriver::pollUntilStopped(HANDLE device, bool reportsChanges) {
    DWORD lastRound = host::GetTickCount();
    bool read = poll(device);
    for (;;) {
        // After a failed read the next round must read again, change or not.
        if (reportsChanges && read && !waitForWake()) break;
        if (!pauseUntilNextRound(lastRound)) break;
        lastRound = host::GetTickCount();
        read = poll(device);
    }
    // Closing the device ends its change notice.
}

bool DioDriver::pauseUntilNextRound(DWORD lastRound) {
    const DWORD period = std::max<DWORD>(this->period(), 1);
    DWORD since = host::GetTickCount() - lastRound;
    const DWORD due = since < period ? period : since + (period - since % period) % period;
    // A reported change may end a pause early; the round still waits its turn.
    while (since < due) {
        if (!pause(due - since)) return false;
        since = host::GetTickCount() - lastRound;
    }
    return !stopRequested();
}

bool DioDriver::poll(HANDLE device) {
    DWORD levels = 0;
    DWORD read = 0;
    {
        host::LockGuard io(ioLock_);
        // A failed or short read is not a change of every line: skip the round.
        if (!host::ReadFile(device, &levels, sizeof levels, &read) || read != sizeof levels)
            return false;
    }
    const DWORD changed = levels ^ lastBits_.load();
    for (int line = 0; line < watchedLines; ++line) {
        const DWORD bit = DWORD{1} << line;
        if (!(changed & bit)) continue;
        host::LockGuard points(pointsLock_);
        IOPoint* point = points_[line];
        if (point && point->isInput()) point->setValue((levels & bit) ? 1 : 0);
    }
    lastBits_ = levels;
    return true;
}
