#pragma once
// Power-fail handling on the KTX board: the board reports an imminent loss of
// power on line 17 of its digital-I/O driver "DIO1:", through the named event
// "DIOInt17". A thread at real-time priority waits for it, stops the
// controller, quiesces the file system, waits 3 s and fires the hardware
// watchdog, which resets the unit about 1 ms later. Every line it writes goes
// to the debug output and begins with the tick count; only a missing event
// is written to the event log.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "platform/win_types.h"

inline constexpr int kPowerFailLine = 17;
inline constexpr DWORD kPowerFailLineMask = DWORD{1} << kPowerFailLine;
// The driver requests that make "DIO1:" report the line through its event.
inline constexpr DWORD kDioMaskRequest = 0x103;  // one word: the lines that stay quiet
inline constexpr DWORD kDioArmRequest = 0x113;   // two words: the lines, then the edges
inline constexpr DWORD kPowerFailEdges = 2;
inline constexpr const wchar_t* kPowerFailEventFormat = L"DIOInt%d";
inline constexpr int kPowerFailPriority = 20;  // real-time level, above every relative level
inline constexpr DWORD kPowerFailWaitMs = 2000;
inline constexpr DWORD kQuiescePauseMs = 3000;  // between quiescing and the reset

// The auto-reset event "DIOInt17", created on the first call after arming the
// driver; the driver stays open for the life of the process. Null when
// "DIO1:" cannot be opened or the event cannot be created.
HANDLE getPowerFailEvent();

// Whether a power failure has started the shutdown; never cleared.
bool powerFailShutDown();

// The thread that waits for the power-fail event.
class PowerFailHandler {
  public:
    // `stopController` clears the controller's run flag. The device layer
    // does not know the controller, so whoever starts the thread says how.
    explicit PowerFailHandler(std::function<void()> stopController);
    PowerFailHandler(const PowerFailHandler&) = delete;
    PowerFailHandler& operator=(const PowerFailHandler&) = delete;

    // The thread body. Ends at once (after an event-log entry) when there is
    // no event; otherwise raises its own priority and waits until stop().
    // The program never stops it: the unit's power goes, or the process ends.
    DWORD PowerFailThread();

    // Ends the thread's loop and wakes a wait in progress. After the thread
    // has ended, call clearWake() so that the wake-up is not mistaken for a
    // power failure by a later waiter.
    void stop();
    void clearWake();

  private:
    void onPowerFail();
    void failedWait(DWORD result);

    const std::function<void()> stopController_;
    std::atomic<bool> stopping_{false};
    std::mutex pauseMutex_;
    std::condition_variable pauseWake_;
};

// Tests only: closes the driver and the event and clears the shut-down flag.
void resetPowerFailForTest();
