#include "panel/knob.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

#include "device/platform_id.h"
#include "panel/digital_input.h"
#include "panel/error_text.h"
#include "panel/file_input_driver.h"
#include "panel/multi_digital_input.h"
#include "panel/quadrature.h"
#include "panel/spi_port.h"
#include "platform/clock.h"
#include "platform/debug_out.h"
#include "platform/handles.h"
#include "platform/thread.h"

namespace {

using Lock = host::LockGuard<host::CriticalSection>;

// Ints reinterpreted as the unsigned words they are stored as.
unsigned asUnsigned(int value) {
    return static_cast<unsigned>(value);
}
int asInt(unsigned value) {
    return static_cast<int>(value);
}

}  // namespace

// --- Construction and destruction -------------------------------------------

void Knob::initialise(int lower, int upper, int initial) {
    lower_ = savedLower_ = lower;
    upper_ = savedUpper_ = upper;
    increment_ = savedIncrement_ = 1;
    count_ = savedCount_ = initial;
    lastReported_ = initial;
    stopEvent_ = host::CreateEventW(true, false, nullptr);
    updater_ = std::make_unique<Updater>(
        *this, notifyPeriodMs, [this](KnobEventListener& listener) { tell(listener); },
        updaterPriority);
}

Knob::Knob(const std::wstring& lineA, const std::wstring& lineB, int lower, int upper,
           int initial) {
    initialise(lower, upper, initial);
    // Without history the input hands each new line code over at once, in
    // its driver's thread.
    multiInput_ = std::make_unique<MultiDigitalInput>(0, lineUpdaterPeriodMs, true);
    multiInput_->addListener(static_cast<MultiDIEventListener*>(this));
    multiInput_->adoptDriver(std::make_unique<FileInputDriver>(
        std::vector<std::wstring>{lineA, lineB}, multiInput_.get(), linePollMs));
}

Knob::Knob(DigitalInput* inputA, DigitalInput* inputB, int lower, int upper, int initial) {
    initialise(lower, upper, initial);
    inputA_ = inputA;
    inputB_ = inputB;
    if (inputA_) inputA_->addListener(static_cast<DigitalInputEventListener*>(this));
    if (inputB_ && inputB_ != inputA_)
        inputB_->addListener(static_cast<DigitalInputEventListener*>(this));
}

Knob::Knob(int lower, int upper, int initial) {
    initialise(lower, upper, initial);
    rotaryEvent_ = host::CreateEventW(false, false, rotaryEventName);
    running_ = true;
    if (getPlatform() == PlatformKtx)
        spiThread_ = host::CreateThread(
            [this]() -> DWORD {
                spiThreadImplementation();
                return 0;
            },
            host::THREAD_PRIORITY_NORMAL, "KnobSpiMonitor");
    eventThread_ = host::CreateThread(
        [this]() -> DWORD {
            eventThreadCallback();
            return 0;
        },
        host::THREAD_PRIORITY_NORMAL, "KnobEventMonitor");
}

Knob::~Knob() {
    stopMonitorThreads();
    detachInputs();
    stopUpdater();
    if (rotaryEvent_ != NULL_HANDLE) host::CloseHandle(rotaryEvent_);
    if (stopEvent_ != NULL_HANDLE) host::CloseHandle(stopEvent_);
}

void Knob::stopMonitorThreads() {
    running_ = false;
    if (stopEvent_ != NULL_HANDLE) host::SetEvent(stopEvent_);
    if (spiThread_ != NULL_HANDLE) {
        host::WaitForSingleObject(spiThread_, INFINITE);
        host::CloseHandle(spiThread_);
        spiThread_ = NULL_HANDLE;
    }
    if (eventThread_ != NULL_HANDLE) {
        // The event thread waits on "RotaryEvent" without a time limit. The
        // event is shared with every other knob of the process, whose event
        // thread may take the wake-up meant for this one (and, finding the
        // same counter value, change nothing), so keep setting it until this
        // thread has gone.
        while (host::WaitForSingleObject(eventThread_, 0) != WAIT_OBJECT_0) {
            host::SetEvent(rotaryEvent_);
            host::Sleep(0);
        }
        host::CloseHandle(eventThread_);
        eventThread_ = NULL_HANDLE;
    }
}

void Knob::detachInputs() {
    // The file lines' input stops its driver, so no more line codes arrive.
    multiInput_.reset();
    // Inputs the knob does not own go on living: leave their listener lists,
    // then wait for a notification that may be in progress (a dispatch runs
    // one at a time, so running one here waits for the current one to end).
    for (DigitalInput* input : {inputA_, inputB_}) {
        if (!input) continue;
        input->removeListener(static_cast<DigitalInputEventListener*>(this));
        if (auto* updater = input->updater()) updater->dispatch();
    }
    inputA_ = inputB_ = nullptr;
}

void Knob::stopUpdater() {
    {
        Lock guard(notifyLock_);
        closing_ = true;
    }
    updater_.reset();
}

// --- Listeners and notification ---------------------------------------------

void Knob::addListener(KnobEventListener* listener) {
    updater_->addListener(listener);
}

void Knob::removeListener(KnobEventListener* listener) {
    if (!updater_->removeListener(listener)) return;
    // Wait for a call to it that may be in progress.
    Lock guard(notifyLock_);
}

bool Knob::isListener(KnobEventListener* listener) const {
    const auto listeners = updater_->listeners();
    return std::find(listeners.begin(), listeners.end(), listener) != listeners.end();
}

void Knob::tell(KnobEventListener& listener) {
    Lock guard(notifyLock_);
    // The updater tells the listeners of a copy of its list; one removed
    // since is not called any more.
    if (closing_ || !isListener(&listener)) return;
    listener.newValue(getCount(), getRate());
}

// Under stateLock_, so that a count the event thread hands to the focus
// owner (and marks as reported in the same step) never reaches the updater.
bool Knob::hasEvents() {
    Lock guard(stateLock_);
    return count_.load() != lastReported_.load();
}

void Knob::removeEvent() {
    Lock guard(stateLock_);
    lastReported_ = count_.load();
}

// --- Range and focus --------------------------------------------------------

void Knob::setRange(int lower, int upper, int increment, int value, bool wrap) {
    Lock guard(stateLock_);
    lower_ = lower;
    upper_ = upper;
    increment_ = increment;
    count_ = value;
    lastReported_ = value;
    wrap_ = wrap;
    unsignedRange_ = false;
}

void Knob::setRange(unsigned lower, unsigned upper, unsigned increment, unsigned value, bool wrap) {
    Lock guard(stateLock_);
    setRange(asInt(lower), asInt(upper), asInt(increment), asInt(value), wrap);
    unsignedRange_ = true;
}

void Knob::setIncrementAmount(int increment) {
    increment_ = increment;
}

bool Knob::takeFocus(int lower, int upper, int increment, int value, KnobEventListener* owner,
                     bool wrap) {
    Lock notifying(notifyLock_);
    Lock guard(stateLock_);
    if (focusOwner_.load() || !owner) return false;
    savedUpper_ = upper_;
    savedLower_ = lower_;
    savedIncrement_ = increment_;
    savedCount_ = count_;
    savedWrap_ = wrap_;
    savedUnsignedRange_ = unsignedRange_;
    setRange(lower, upper, increment, value, wrap);
    focusOwner_ = owner;
    return true;
}

bool Knob::releaseFocus(KnobEventListener* owner) {
    // Under notifyLock_: once this answers, the event thread does not call
    // the old owner any more.
    Lock notifying(notifyLock_);
    Lock guard(stateLock_);
    if (!owner || owner != focusOwner_.load()) return false;
    setRange(savedLower_, savedUpper_, savedIncrement_, savedCount_, savedWrap_);
    unsignedRange_ = savedUnsignedRange_;
    focusOwner_ = nullptr;
    return true;
}

// --- Line decoding ----------------------------------------------------------

void Knob::newValue(MultiDigitalInput* input, int code) {
    (void)input;
    Lock guard(stateLock_);
    switch (panel::quadratureStep(quadState_.load(), code)) {
        case panel::QuadStep::Up:
            incrementCount();
            break;
        case panel::QuadStep::Down:
            decrementCount();
            break;
        case panel::QuadStep::CodeOrderError:
            codeOrderError(code);
            break;
        case panel::QuadStep::OutOfRange:
            swError(code);
            break;
    }
    quadState_ = code;
}

void Knob::newValue(DigitalInput* input, bool level) {
    const int previous = quadState_.load();
    int code = previous;
    if (input && input == inputA_)
        code = level ? (previous | 1) : (previous & 2);
    else if (input && input == inputB_)
        code = level ? (previous | 2) : (previous & 1);
    newValue(static_cast<MultiDigitalInput*>(nullptr), code);
}

int Knob::newValue(IOPoint* point) {
    (void)point;
    return 0;
}

// Sums are taken in 64 bits: a count near the limits of an int must not
// overflow on its way to the bound test.
void Knob::incrementCount() {
    const std::int64_t next = std::int64_t{count_.load()} + increment_.load();
    if (next <= upper_.load())
        count_ = static_cast<int>(next);
    else if (wrap_.load())
        count_ = lower_.load();
}

void Knob::decrementCount() {
    const std::int64_t next = std::int64_t{count_.load()} - increment_.load();
    if (next >= lower_.load())
        count_ = static_cast<int>(next);
    else if (wrap_.load())
        count_ = upper_.load();
}

void Knob::codeOrderError(int code) {
    (void)code;
    ++codeOrderErrorCount_;
    errorFlag_ = true;
}

void Knob::swError(int code) {
    (void)code;
    ++swErrorCount_;
    errorFlag_ = true;
}

// --- Counter chip: event monitor --------------------------------------------

bool Knob::pause(DWORD ms) {
    return running_.load() && host::WaitForSingleObject(stopEvent_, ms) == WAIT_TIMEOUT &&
           running_.load();
}

void Knob::eventThreadCallback() {
    if (!pause(eventStartDelayMs)) return;
    lastEventData_ = static_cast<WORD>(host::GetEventData(rotaryEvent_));
    eventMonitorReady_ = true;
    while (running_.load()) {
        host::WaitForSingleObject(rotaryEvent_, INFINITE);
        // A wake-up from the destructor is not a counter change.
        if (!running_.load()) break;
        const WORD data = static_cast<WORD>(host::GetEventData(rotaryEvent_));
        // The 16-bit counter wraps: 0xFFFE -> 0x0001 is three counts up.
        const auto delta = static_cast<std::int16_t>(static_cast<WORD>(data - lastEventData_));
        applyCounterDelta(delta);
        tellFocusOwner();
        lastEventData_ = data;
    }
}

void Knob::applyCounterDelta(int delta) {
    Lock guard(stateLock_);
    // The chip counts the other way round on the VBQ panel.
    const std::int64_t change =
        std::int64_t{delta} * increment_.load() * (getPlatform() == PlatformKtx ? 1 : -1);
    const int lower = lower_.load();
    const int upper = upper_.load();
    const bool wrap = wrap_.load();
    if (unsignedRange_.load()) {
        // Unsigned ranges count modulo 2^32, as the words they are.
        const unsigned next = asUnsigned(count_.load()) + static_cast<unsigned>(change);
        if (next > asUnsigned(upper))
            count_ = wrap ? lower : upper;
        else if (next < asUnsigned(lower))
            count_ = wrap ? upper : lower;
        else
            count_ = asInt(next);
    } else {
        const std::int64_t next = std::int64_t{count_.load()} + change;
        if (next > upper)
            count_ = wrap ? lower : upper;
        else if (next < lower)
            count_ = wrap ? upper : lower;
        else
            count_ = static_cast<int>(next);
    }
    // The focus owner hears it from this thread; the updater then has
    // nothing to say.
    if (focusOwner_.load()) lastReported_ = count_.load();
}

void Knob::tellFocusOwner() {
    Lock notifying(notifyLock_);
    if (KnobEventListener* owner = focusOwner_.load()) owner->newValue(getCount(), getRate());
}

// --- Counter chip: SPI monitor ----------------------------------------------

void Knob::publishCounter(DWORD value) {
    host::SetEventData(rotaryEvent_, value);
    host::SetEvent(rotaryEvent_);
}

void Knob::spiThreadImplementation() {
    // A missing "SPI1:" driver is thrown by the port and not caught here: it
    // ends this thread (the host records it in the thread's exit code), and
    // the knob never hears from the chip.
    SpiPort* port = SpiPort::getPort(spiPort, spiChipSelect);
    host::NKDbgPrintfW(L"Knob::spiThreadImplementation() Initialize MDR0...\n");
    port->writeSPI(setUpMdr0, 16);
    panel::printLastError(L"Knob::spiThreadImplementation() PreWrite = ");
    host::NKDbgPrintfW(L"Knob::spiThreadImplementation() Initialize MDR1...\n");
    port->writeSPI(setUpMdr1, 16);
    // A failed read answers 0xFFFFFFFF, which goes on like any counter value.
    DWORD last = port->readSPI(readCounter, readCounterBits);
    publishCounter(last);
    while (pause(spiPollMs)) {
        const DWORD counter = port->readSPI(readCounter, readCounterBits);
        if (counter == last) continue;
        last = counter;
        publishCounter(counter);
    }
}
