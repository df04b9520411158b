#pragma once
// What the status dialog does, whatever shows it on a screen: it keeps the
// latest status text and load value that other threads hand it, handles the
// two registered messages that announce them, and its initialisation starts
// the CPU/LED thread and, on the KTX board, the power-fail thread.
//
// Other threads never touch the dialog's controls: StatusMsg and the CPU/LED
// thread store a value here and post a message; the dialog's own thread takes
// the message and updates its controls (DialogControls) from the value stored
// at that moment, so the latest value is what is shown.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "app/window_messages.h"
#include "device/dual_led_blinker.h"
#include "device/led_blinker.h"
#include "device/led_line.h"
#include "device/power_fail.h"
#include "platform/cpu_times.h"
#include "platform/win_types.h"

// The dialog's controls as its message handling updates them.
class DialogControls {
  public:
    virtual ~DialogControls() = default;
    virtual void setBarRange(int low, int high) = 0;
    virtual void setBarPosition(int position) = 0;
    virtual void setStatusText(const std::wstring& text) = 0;
};

// The LEDs as their lines stand right now.
struct LedStates {
    bool present = false;  // the CPU/LED thread has set them up
    bool green = false;
    bool frontA = false;
    bool frontB = false;
};

class DialogCore {
  public:
    // The names the two posted messages are registered under.
    static constexpr const wchar_t* kStatusMessageName =
        L"CTovelDlg::StatusMsg-{C8990EA0-D19A-4765-9598-943F9D19C10F}";
    static constexpr const wchar_t* kCpuUpdateMessageName =
        L"CTovelDlg::CPUUpdateMsg-{C8990EA0-D19A-4765-9598-943F9D19C10F}";

    static constexpr int kBarLow = 0;
    static constexpr int kBarHigh = 100;
    static constexpr DWORD kWindowMs = 200;  // one measuring pass
    static constexpr DWORD kGreenOffMs = 500;
    static constexpr DWORD kGreenOnMs = 250;
    static constexpr DWORD kFrontPanelMs = 500;   // off and on, as made
    static constexpr DWORD kActiveBlinkMs = 200;  // front panel while a client session is active
    static constexpr DWORD kIdleBlinkMs = 500;
    static constexpr int kGreenMode = LedBlinker::ModeBlink;
    static constexpr int kFrontPanelMode = 6;  // A dark, B blinks

    // Output lines of the LEDs on one board.
    struct LedLayout {
        int green;
        int frontA;
        int frontB;
    };
    static constexpr LedLayout kKtxLeds{6, 0, 14};
    static constexpr LedLayout kVbqLeds{19, 14, 15};

    // What the dialog reaches outside itself; tests replace parts of it.
    struct Environment {
        // The machine's processor time counters; nullopt if unreadable.
        std::function<std::optional<host::CpuTimes>()> cpuTimes;
        // Whether the controller exists and has an active client session.
        std::function<bool()> anySessionActive;
        // The LED on an output line; null if it cannot be had.
        std::function<std::unique_ptr<LedLine>(int line)> makeLedLine;
        // Clears the controller's run flag (the power-fail shutdown).
        std::function<void()> stopController;

        // The unit's: host thread times, the server controller, the
        // process-wide digital outputs.
        static Environment unit();
    };

    explicit DialogCore(Environment environment = Environment::unit());
    // Stops the threads that the initialisation started and waits for them
    // a little (see kThreadEndWaitMs).
    ~DialogCore();
    DialogCore(const DialogCore&) = delete;
    DialogCore& operator=(const DialogCore&) = delete;

    // How long the dialog's end waits for each of its threads. The CPU/LED
    // thread can be held in the controller's session lock, which after the
    // board registry's end may never come free; a thread that does not end
    // in time is left to end with the process, keeping alive what it uses.
    static constexpr DWORD kThreadEndWaitMs = 500;
    static constexpr DWORD kPowerFailEndWaitMs = kQuiescePauseMs + 500;

    static UINT statusMessage();     // registered under kStatusMessageName
    static UINT cpuUpdateMessage();  // registered under kCpuUpdateMessageName

    // Any thread: stores the text and posts the status message.
    void StatusMsg(std::wstring text);

    // The dialog's thread, once its controls exist: sets the bar's range,
    // starts the CPU/LED thread at idle priority (the one thread of the unit
    // in the idle class) and, when the platform answer is exactly 1 (KTX),
    // the power-fail thread. Answers true.
    bool OnInitDialog(DialogControls& controls);
    // Updates the controls for one of the two messages; false for any other.
    bool WindowProc(UINT message, DialogControls& controls);
    // Handles every message waiting now.
    void dispatchMessages(DialogControls& controls);
    PostedMessages& messages() { return *messages_; }

    // The CPU/LED thread's parts, also run one by one by tests. setUpLeds()
    // makes and starts the blinkers of the platform; beginMeasuring() notes
    // the machine's processor time counters; a pass waits kWindowMs on the
    // host clock (asleep), stores the load, posts the update message and sets
    // the front-panel blink rate.
    void setUpLeds() { cpuLed_->setUpLeds(); }
    void beginMeasuring() { cpuLed_->beginMeasuring(); }
    void cpuMonitorPass() { cpuLed_->pass(); }

    // The load shown for one window: the share of the machine's processor
    // time (all cores) spent busy between two readings, kBarLow..kBarHigh;
    // kBarLow when either reading is missing or the counters went back.
    static int loadBetween(const std::optional<host::CpuTimes>& start,
                           const std::optional<host::CpuTimes>& end);

    int cpuUsage() const { return cpuLed_->m_cpuUsage.load(); }
    std::wstring statusText() const;
    LedStates ledStates() const;
    // The blinkers, once set up (null before, or if their lines could not be had).
    const LedBlinker* greenBlinker() const;
    const DualLedBlinker* frontPanelBlinker() const;
    // Threads started by OnInitDialog (null if not started).
    HANDLE cpuMonitorThread() const { return cpuThread_; }
    HANDLE powerFailThread() const { return powerFailThread_; }

  private:
    // What the CPU/LED thread works with. The thread shares it with the
    // dialog, so a thread that outlives the dialog never touches freed memory.
    struct CpuLed {
        CpuLed(Environment environment, std::shared_ptr<PostedMessages> messages);

        // The thread body: LED set-up, then one pass after another until stopped.
        DWORD CPUMonitorThread();
        void setUpLeds();
        void beginMeasuring();
        void pass();

        // Ends a window at once; the thread then returns.
        void stop();

        const Environment env;
        const std::shared_ptr<PostedMessages> messages;
        std::atomic<bool> stopping{false};
        std::mutex stopLock;
        std::condition_variable stopped;
        std::atomic<int> m_cpuUsage{0};
        std::optional<host::CpuTimes> windowStart;  // the measuring thread's own

        // Made once by the measuring thread; lines before blinkers, so that
        // the blinkers (and their threads) end first.
        mutable std::mutex ledsLock;
        std::unique_ptr<LedLine> greenLine;
        std::unique_ptr<LedLine> frontALine;
        std::unique_ptr<LedLine> frontBLine;
        std::unique_ptr<LedBlinker> green;
        std::unique_ptr<DualLedBlinker> frontPanel;
    };

    void startPowerFailThread();

    const std::shared_ptr<PostedMessages> messages_;
    // Written by any reporting thread; read by the dialog's thread.
    mutable std::mutex statusLock_;
    std::wstring m_statusText;

    const std::shared_ptr<CpuLed> cpuLed_;
    std::shared_ptr<PowerFailHandler> powerFail_;
    HANDLE cpuThread_ = NULL_HANDLE;
    HANDLE powerFailThread_ = NULL_HANDLE;
};
