#include "device/blinker_thread.h"

#include "platform/clock.h"
#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"

BlinkerThread::~BlinkerThread() {
    stop();
}

bool BlinkerThread::start(std::function<void()> pass, const std::string& name) {
    if (thread_) return false;
    running_ = true;
    thread_ = host::CreateThread(
        [this, pass = std::move(pass)]() -> DWORD {
            while (running_.load()) pass();
            return 0;
        },
        host::THREAD_PRIORITY_NORMAL, name);
    if (!thread_) running_ = false;
    return thread_ != NULL_HANDLE;
}

void BlinkerThread::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = false;
    }
    wake_.notify_all();
    if (!thread_) return;
    host::WaitForSingleObject(thread_, INFINITE);
    host::CloseHandle(thread_);
    thread_ = NULL_HANDLE;
}

void BlinkerThread::pause(DWORD ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    host::clock().waitFor(wake_, lock, ms, [this] { return !running_.load(); });
}
