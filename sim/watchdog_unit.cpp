#include "sim/watchdog_unit.h"

#include <algorithm>
#include <cstdint>

#include "boards/error_log.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/handles.h"
#include "platform/process.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace sim {

void resetSimulatedUnit(const std::wstring& cause) {
    host::NKDbgPrintfW(
        L"SIMULATED HARDWARE WATCHDOG EXPIRED (%s): resetting the unit, exit code %d\n",
        cause.c_str(), kWatchdogResetExitCode);
    LogError(L"Hardware watchdog expired (" + cause + L"): unit reset");
    host::ExitProcess(kWatchdogResetExitCode);
}

WatchdogMonitor::WatchdogMonitor(Check check) : shared_(std::make_shared<Shared>()) {
    thread_ = host::CreateThread(
        [shared = shared_, check = std::move(check)]() -> DWORD {
            try {
                for (;;) {
                    const DWORD checkedAt = host::GetTickCount();
                    WatchdogCheck result = check();
                    std::unique_lock<std::mutex> lock(shared->mutex);
                    if (shared->stop) break;
                    if (result.expiredBecause) {
                        shared->fired = true;
                        lock.unlock();
                        resetSimulatedUnit(*result.expiredBecause);
                    }
                    // The next look is due a fixed time after this one, even
                    // if the clock moved on while the watchdog was checked.
                    const DWORD due = checkedAt + std::clamp<DWORD>(result.msToExpiry, 1, kPollMs);
                    const auto left = static_cast<std::int32_t>(due - host::GetTickCount());
                    if (left > 0)
                        host::clock().waitFor(shared->wake, lock, static_cast<DWORD>(left),
                                              [&] { return shared->stop || shared->poked; });
                    if (shared->stop) break;
                    shared->poked = false;
                }
            } catch (...) {
                // A test's exit handler ends this thread by throwing.
            }
            return 0;
        },
        host::THREAD_PRIORITY_NORMAL, "sim-watchdog");
    if (!thread_)
        host::NKDbgPrintfW(
            L"SIM: the watchdog monitor could not be started; the watchdog cannot reset\n");
}

void WatchdogMonitor::poke() {
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->poked = true;
    }
    shared_->wake.notify_all();
}

WatchdogMonitor::~WatchdogMonitor() {
    bool fired = false;
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->stop = true;
        fired = shared_->fired;
    }
    shared_->wake.notify_all();
    if (!thread_) return;
    if (!fired) host::WaitForSingleObject(thread_, INFINITE);
    host::CloseHandle(thread_);
}

}  // namespace sim
