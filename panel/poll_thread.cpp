#include "panel/poll_thread.h"

#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace panel {

PollThread::PollThread() : wake_(host::CreateEventW(false, false, nullptr)) {}

PollThread::~PollThread() {
    halt();
    host::CloseHandle(wake_);
}

bool PollThread::start(std::function<void()> body, int priority, const std::string& name) {
    if (thread_ != NULL_HANDLE) return false;
    stop_ = false;
    host::ResetEvent(wake_);
    running_ = true;
    thread_ = host::CreateThread(
        [this, body = std::move(body)]() -> DWORD {
            threadId_ = std::this_thread::get_id();
            struct Finished {
                std::atomic<bool>& running;
                ~Finished() { running = false; }
            } finished{running_};
            body();
            return 0;
        },
        priority, name);
    if (thread_ == NULL_HANDLE) {
        running_ = false;
        stop_ = true;
        return false;
    }
    return true;
}

void PollThread::halt(int stoppingPriority) {
    stop_ = true;
    host::SetEvent(wake_);
    if (thread_ == NULL_HANDLE) return;
    if (stoppingPriority >= 0) host::SetThreadPriority(thread_, stoppingPriority);
    // A body that ends its own thread (a listener deleting its point, say)
    // cannot wait for itself.
    if (threadId_.load() != std::this_thread::get_id())
        host::WaitForSingleObject(thread_, INFINITE);
    host::CloseHandle(thread_);
    thread_ = NULL_HANDLE;
}

bool PollThread::pause(DWORD ms) {
    if (stop_.load()) return false;
    host::WaitForSingleObject(wake_, ms);
    return !stop_.load();
}

bool PollThread::waitForWake() {
    return pause(INFINITE);
}

}  // namespace panel
