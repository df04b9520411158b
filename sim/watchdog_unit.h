#pragma once
// What the simulated watchdog hardware shares: the state a control tool
// shows, the unit reset that an expired watchdog causes, and the monitor
// thread that watches the clock for the expiry.
//
// A simulated watchdog that expires resets the unit: it writes a line to the
// debug output and the event log and ends the process with exit code 23
// (kWatchdogResetExitCode) through host::ExitProcess, as a hardware reset
// would end it. 23 is none of the program's own exit codes (22 is the
// restart through the reset helper), so whatever restarts the program can
// tell a watchdog reset from a requested restart.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/win_types.h"

namespace sim {

inline constexpr int kWatchdogResetExitCode = 23;

struct WatchdogState {
    bool present = false;      // the simulated hardware is installed
    bool armed = false;        // started: it resets the unit unless serviced
    bool expired = false;      // it has reset the unit
    DWORD intervalMs = 0;      // the reload interval
    DWORD sinceServiceMs = 0;  // time since it was last serviced (or armed)
    DWORD remainingMs = 0;     // time left before it resets the unit
    std::wstring hardware;     // which watchdog: the vendor library's or the timer's
};

// Writes the reset to the debug output and the event log, then ends the
// process with kWatchdogResetExitCode.
[[noreturn]] void resetSimulatedUnit(const std::wstring& cause);

// What a watchdog says when its monitor looks at it.
struct WatchdogCheck {
    std::optional<std::wstring> expiredBecause;  // set once it has expired
    DWORD msToExpiry = 0xFFFFFFFFu;              // when to look again at the latest
};

// A thread that asks `check` on the host clock whether the watchdog has
// expired and then resets the unit. It looks again when the watchdog says it
// may expire, at the latest after kPollMs, and at once when poked. With a
// ManualClock it looks each time the test moves the time on.
class WatchdogMonitor {
  public:
    // Long enough that an idle unit's two monitors cost next to nothing; an
    // expiry is seen on time anyway (msToExpiry), and a poke at once.
    static constexpr DWORD kPollMs = 1000;
    using Check = std::function<WatchdogCheck()>;
    explicit WatchdogMonitor(Check check);
    // Stops the thread and waits for it, unless it has already reset the unit
    // (it then never touches the watched object again).
    ~WatchdogMonitor();
    WatchdogMonitor(const WatchdogMonitor&) = delete;
    WatchdogMonitor& operator=(const WatchdogMonitor&) = delete;

    // Makes the thread look again now (the watchdog's state changed).
    void poke();

  private:
    struct Shared {
        std::mutex mutex;
        std::condition_variable wake;
        bool stop = false;
        bool fired = false;
        bool poked = false;
    };
    std::shared_ptr<Shared> shared_;
    HANDLE thread_ = NULL_HANDLE;
};

}  // namespace sim
