#include "panel/io_driver.h"

#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"

IODriver::IODriver(DWORD period)
    : period_(period), ready_(host::CreateEventW(true, false, nullptr)) {}

IODriver::~IODriver() {
    // Concrete drivers halt in their own destructors, while run() is still
    // theirs; this only covers a driver that never got that far.
    halt();
    host::CloseHandle(ready_);
}

void IODriver::write(bool level, IOPoint* point) {
    (void)level, (void)point;
}

void IODriver::detach(IOPoint* point) {
    (void)point;
}

void IODriver::halt() {
    thread_.halt();
}

bool IODriver::start() {
    host::ResetEvent(ready_);
    const bool started = thread_.start(
        [this] {
            run();
            bodyEnded_ = true;
            ready();
        },
        host::THREAD_PRIORITY_TIME_CRITICAL, "IODriver");
    // Instead of giving the new thread a millisecond to open its device, wait
    // until it says it has.
    if (!started) return false;
    host::WaitForSingleObject(ready_, INFINITE);
    // A body that ended at once (no device) has stopped for good: the driver
    // says so from the moment its constructor returns.
    if (bodyEnded_.load()) {
        thread_.halt();
        return false;
    }
    return true;
}

void IODriver::ready() {
    host::SetEvent(ready_);
}
