#pragma once
// Knob: a front-panel rotary encoder as a bounded counter. Its source is one
// of three: two lines read from device files, two digital inputs, or the
// LS7366R quadrature counter on SPI port 1, whose count reaches the knob
// through the named event "RotaryEvent" and its event data. Listeners hear
// the count from the knob's updater thread, at most once per 50 ms; a focus
// owner installs its own range for a while and gets the old one back.
#include <atomic>
#include <memory>
#include <string>

#include "panel/io_listeners.h"
#include "panel/io_updater.h"
#include "platform/sync.h"
#include "platform/win_types.h"
#include "tovel/knob.h"

class DigitalInput;
class MultiDigitalInput;

// The clients' listener interface is the one the shared library exports.
using KnobEventListener = tovel::KnobEventListener;

// Final: the knob starts threads that call its virtual operations from its
// constructor on, and stops them first thing in its destructor, which is only
// sound for the most derived class.
//
// Neither copyable nor movable: its threads, its updater, its input and the
// input's driver all hold the knob's address, and a copy would share (and
// release twice) the updater, the input and the event. A client that needs a
// handle to pass around holds it by pointer (tovel::Knob is such a handle).
class Knob final : public MultiDIEventListener,
                   public IOUpdateOwner,
                   public DigitalInputEventListener {
  public:
    using Updater = IOUpdater<KnobEventListener>;

    static constexpr DWORD notifyPeriodMs = 50;
    static constexpr int updaterPriority = host::THREAD_PRIORITY_BELOW_NORMAL;
    // The first form's multi-bit input and its file-input driver.
    static constexpr DWORD lineUpdaterPeriodMs = 30000;
    static constexpr DWORD linePollMs = 2;
    // The counter chip.
    static constexpr const wchar_t* rotaryEventName = L"RotaryEvent";
    static constexpr DWORD eventStartDelayMs = 500;
    static constexpr DWORD spiPollMs = 50;
    static constexpr int spiPort = 1;
    static constexpr int spiChipSelect = 1;
    // Write MDR0 (0x88) = 0x03: x4 quadrature, free-running, index off, filter /1.
    static constexpr DWORD setUpMdr0 = 0x8803;
    // Write MDR1 (0x90) = 0x02: 2-byte counter.
    static constexpr DWORD setUpMdr1 = 0x9002;
    static constexpr DWORD readCounter = 0x60;  // read CNTR
    static constexpr int readCounterBits = 24;  // the command byte and 16 counter bits

    // Lines A and B from two device files, fed through a multi-bit input.
    Knob(const std::wstring& lineA, const std::wstring& lineB, int lower, int upper, int initial);
    // Lines A and B from two digital inputs, which must outlive the knob.
    Knob(DigitalInput* inputA, DigitalInput* inputB, int lower, int upper, int initial);
    // The LS7366R counter through "RotaryEvent".
    Knob(int lower, int upper, int initial);
    // Stops the monitor threads, the input and the updater (in that order,
    // so nothing calls into the knob any more), then closes the events.
    ~Knob() override;
    Knob(const Knob&) = delete;
    Knob& operator=(const Knob&) = delete;

    void addListener(KnobEventListener* listener);
    // Removes the first entry equal to `listener`; no entry: no change. Once
    // it returns, the updater does not call the listener through that entry.
    void removeListener(KnobEventListener* listener);

    int getCount() const { return count_.load(); }
    float getRate() const { return rate_; }
    void setRange(int lower, int upper, int increment, int value, bool wrap);
    void setRange(unsigned lower, unsigned upper, unsigned increment, unsigned value, bool wrap);
    void setIncrementAmount(int increment);
    bool takeFocus(int lower, int upper, int increment, int value, KnobEventListener* owner,
                   bool wrap);
    bool releaseFocus(KnobEventListener* owner);

    // IOUpdateOwner: an event is a count that the listeners have not heard.
    bool hasEvents() override;
    void removeEvent() override;

    // A line changed: the code is decoded against the previous one.
    void newValue(DigitalInput* input, bool level) override;
    void newValue(MultiDigitalInput* input, int code) override;
    int newValue(IOPoint* point) override;

    // State, for diagnostics and tests.
    int lower() const { return lower_.load(); }
    int upper() const { return upper_.load(); }
    int increment() const { return increment_.load(); }
    bool wrap() const { return wrap_.load(); }
    bool unsignedRange() const { return unsignedRange_.load(); }
    int quadState() const { return quadState_.load(); }
    unsigned swErrorCount() const { return swErrorCount_.load(); }
    unsigned codeOrderErrorCount() const { return codeOrderErrorCount_.load(); }
    bool errorFlag() const { return errorFlag_.load(); }
    KnobEventListener* focusOwner() const { return focusOwner_.load(); }
    WORD lastEventData() const { return lastEventData_.load(); }
    // The event monitor has taken its starting point and waits for the event.
    bool eventMonitorReady() const { return eventMonitorReady_.load(); }
    bool spiMonitorStarted() const { return spiThread_ != NULL_HANDLE; }
    const Updater& updater() const { return *updater_; }

  private:
    // What every constructor does first.
    void initialise(int lower, int upper, int initial);

    void incrementCount();
    void decrementCount();
    void codeOrderError(int code);
    void swError(int code);

    void eventThreadCallback();
    void spiThreadImplementation();
    // The event thread's step: the counter moved by `delta`.
    void applyCounterDelta(int delta);
    // Tells the focus owner the count, from the event thread.
    void tellFocusOwner();
    // Hands the counter value to the event thread.
    void publishCounter(DWORD value);
    // Waits `ms` on the host clock; false (at once) once the knob is stopping.
    bool pause(DWORD ms);

    // The updater's notification of one listener.
    void tell(KnobEventListener& listener);
    bool isListener(KnobEventListener* listener) const;

    void stopMonitorThreads();
    void detachInputs();
    void stopUpdater();

    // The fields are single words read by the updater and by clients without
    // a lock; compound changes (a step, a new range, taking or releasing the
    // focus) are made under stateLock_ so they never interleave.
    std::atomic<int> lastReported_{0};
    std::atomic<int> quadState_{0};
    std::atomic<int> upper_{0};
    std::atomic<int> lower_{0};
    std::atomic<int> increment_{1};
    std::atomic<int> count_{0};
    int savedUpper_ = 0;
    int savedLower_ = 0;
    int savedIncrement_ = 1;
    int savedCount_ = 0;
    std::atomic<unsigned> swErrorCount_{0};
    std::atomic<unsigned> codeOrderErrorCount_{0};
    // Nothing measures how fast the knob turns, so the value handed to
    // listeners beside the count is a fixed 0 rather than undefined.
    float rate_ = 0.0f;
    std::atomic<bool> errorFlag_{false};
    std::atomic<bool> running_{false};
    std::atomic<bool> wrap_{false};
    bool savedWrap_ = false;
    std::atomic<bool> unsignedRange_{false};
    bool savedUnsignedRange_ = false;
    std::unique_ptr<MultiDigitalInput> multiInput_;
    DigitalInput* inputA_ = nullptr;  // not owned
    DigitalInput* inputB_ = nullptr;  // not owned
    std::unique_ptr<Updater> updater_;
    HANDLE rotaryEvent_ = NULL_HANDLE;
    std::atomic<WORD> lastEventData_{0};
    std::atomic<KnobEventListener*> focusOwner_{nullptr};

    host::CriticalSection stateLock_;
    // Held while a listener or the focus owner is being called, so removing a
    // listener or releasing the focus can wait for a call in progress.
    host::CriticalSection notifyLock_;
    bool closing_ = false;  // under notifyLock_: the updater is going away
    // Cuts the monitor threads' pauses short when the knob goes.
    HANDLE stopEvent_ = NULL_HANDLE;
    HANDLE eventThread_ = NULL_HANDLE;
    HANDLE spiThread_ = NULL_HANDLE;
    std::atomic<bool> eventMonitorReady_{false};
};
