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
            ready();
        },
        host::THREAD_PRIORITY_TIME_CRITICAL, "IODriver");
    // Instead of giving the new thread a millisecond to open its device, wait
    // until it says it has.
    if (started) host::WaitForSingleObject(ready_, INFINITE);
    return started;
}

void IODriver::ready() {
    host::SetEvent(ready_);
}
