#include "app/dialog_core.h"

#include <algorithm>

#include "app/led_outputs.h"
#include "app/panel_readout.h"
#include "device/platform_id.h"
#include "platform/clock.h"
#include "platform/coredll.h"
#include "platform/debug_out.h"
#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "server/tovel_ctlr.h"

namespace {

// Registered with the process, before the application starts.
const UINT kStatusMessage = registerWindowMessage(DialogCore::kStatusMessageName);
const UINT kCpuUpdateMessage = registerWindowMessage(DialogCore::kCpuUpdateMessageName);

// Waits up to `ms` for a thread to end and lets its handle go; answers
// whether it ended (or never started).
bool endThread(HANDLE& thread, DWORD ms) {
    if (thread == NULL_HANDLE) return true;
    const bool ended = host::WaitForSingleObject(thread, ms) == WAIT_OBJECT_0;
    host::CloseHandle(thread);
    thread = NULL_HANDLE;
    return ended;
}

}  // namespace

DialogCore::Environment DialogCore::Environment::unit() {
    Environment env;
    env.cpuTimes = [] { return host::readCpuTimes(); };
    // current(), not instance(): the dialog never makes a controller, and
    // one that has been deleted has no sessions to show.
    env.anySessionActive = [] {
        TovelCtlr* ctlr = TovelCtlr::current();
        return ctlr != nullptr && ctlr->anyTovelActive();
    };
    env.makeLedLine = [](int line) { return ::makeLedLine(line); };
    env.stopController = [] {
        if (TovelCtlr* ctlr = TovelCtlr::current()) ctlr->stopRunning();
    };
    return env;
}

DialogCore::DialogCore(Environment environment)
    : messages_(std::make_shared<PostedMessages>()),
      cpuLed_(std::make_shared<CpuLed>(std::move(environment), messages_)) {
    registerPanel(this);
}

DialogCore::~DialogCore() {
    unregisterPanel(this);
    // On the unit these threads end with the process; here the dialog goes
    // first, so they are told to stop and given a moment to do so.
    cpuLed_->stop();
    if (powerFail_) powerFail_->stop();
    endThread(cpuThread_, kThreadEndWaitMs);
    if (powerFail_ && endThread(powerFailThread_, kPowerFailEndWaitMs)) powerFail_->clearWake();
}

UINT DialogCore::statusMessage() {
    return kStatusMessage;
}

UINT DialogCore::cpuUpdateMessage() {
    return kCpuUpdateMessage;
}

void DialogCore::StatusMsg(std::wstring text) {
    {
        std::lock_guard<std::mutex> lock(statusLock_);
        m_statusText = std::move(text);
    }
    messages_->post(kStatusMessage);
}

std::wstring DialogCore::statusText() const {
    std::lock_guard<std::mutex> lock(statusLock_);
    return m_statusText;
}

bool DialogCore::OnInitDialog(DialogControls& controls) {
    // Asked before the CPU/LED thread can ask too: while the first answer is
    // being read from the registry, a concurrent caller is told "unreadable".
    const bool ktx = getPlatform() == PlatformKtx;
    controls.setBarRange(kBarLow, kBarHigh);
    // No failure is reported: without the thread the bar and LEDs stay still.
    // The thread lets go of what it shares before it counts as ended, so
    // that whoever waits for its end may destroy the dialog at once.
    cpuThread_ = host::CreateThread(
        [cpuLed = cpuLed_]() mutable {
            const DWORD code = cpuLed->CPUMonitorThread();
            cpuLed.reset();
            return code;
        },
        host::THREAD_PRIORITY_IDLE, "tovel-cpu-led");
    if (ktx) startPowerFailThread();
    return true;
}

void DialogCore::startPowerFailThread() {
    host::ensureCoreLibrary();
    powerFail_ = std::make_shared<PowerFailHandler>(cpuLed_->env.stopController);
    // The thread raises itself to real time at once. It starts at the normal
    // level rather than idle: Linux lets an unprivileged thread into the idle
    // class but not out of it, and this one must end up the most urgent.
    powerFailThread_ = host::CreateThread(
        [handler = powerFail_]() mutable {
            const DWORD code = handler->PowerFailThread();
            handler.reset();
            return code;
        },
        host::THREAD_PRIORITY_NORMAL, "tovel-powerfail");
}

bool DialogCore::WindowProc(UINT message, DialogControls& controls) {
    if (message == kCpuUpdateMessage) {
        controls.setBarPosition(cpuLed_->m_cpuUsage.load());
        return true;
    }
    if (message == kStatusMessage) {
        controls.setStatusText(statusText());
        return true;
    }
    return false;
}

void DialogCore::dispatchMessages(DialogControls& controls) {
    while (const auto message = messages_->take()) WindowProc(*message, controls);
}

int DialogCore::loadBetween(const std::optional<host::CpuTimes>& start,
                            const std::optional<host::CpuTimes>& end) {
    // The machine's busy share over the window, from the kernel's counters
    // for all cores together. The original measured how much time an
    // idle-priority thread got by spinning, which costs a core here and
    // reads near 0 on a multi-core host; the counters mean the same (higher
    // is busier) without either.
    if (!start || !end || end->total <= start->total || end->busy < start->busy) return kBarLow;
    const std::uint64_t total = end->total - start->total;
    const std::uint64_t busy = std::min(end->busy - start->busy, total);
    const auto span = static_cast<std::uint64_t>(kBarHigh - kBarLow);
    return kBarLow + static_cast<int>((busy * span + total / 2) / total);
}

LedStates DialogCore::ledStates() const {
    const CpuLed& c = *cpuLed_;
    std::lock_guard<std::mutex> lock(c.ledsLock);
    LedStates states;
    states.present = c.greenLine || c.frontALine || c.frontBLine;
    states.green = c.greenLine && c.greenLine->isOn();
    states.frontA = c.frontALine && c.frontALine->isOn();
    states.frontB = c.frontBLine && c.frontBLine->isOn();
    return states;
}

const LedBlinker* DialogCore::greenBlinker() const {
    std::lock_guard<std::mutex> lock(cpuLed_->ledsLock);
    return cpuLed_->green.get();
}

const DualLedBlinker* DialogCore::frontPanelBlinker() const {
    std::lock_guard<std::mutex> lock(cpuLed_->ledsLock);
    return cpuLed_->frontPanel.get();
}

// ---- The CPU/LED thread.

DialogCore::CpuLed::CpuLed(Environment environment, std::shared_ptr<PostedMessages> messages)
    : env(std::move(environment)), messages(std::move(messages)) {}

DWORD DialogCore::CpuLed::CPUMonitorThread() {
    setUpLeds();
    beginMeasuring();
    while (!stopping.load()) pass();
    return 0;
}

void DialogCore::CpuLed::setUpLeds() {
    const bool ktxLines = getPlatform() != PlatformVbq;  // KTX, or unreadable
    const LedLayout& layout = ktxLines ? kKtxLeds : kVbqLeds;
    host::NKDbgPrintfW(ktxLines ? L"  Init (KTX) GrnLED\n" : L"  Init (VBQ) GrnLED\n");
    auto greenLed = env.makeLedLine(layout.green);
    std::unique_ptr<LedBlinker> greenBlinker;
    if (greenLed)
        greenBlinker = std::make_unique<LedBlinker>(greenLed.get(), kGreenOffMs, kGreenOnMs);

    host::NKDbgPrintfW(ktxLines ? L"  Init (KTX) FrontPanelLED\n"
                                : L"  Init (VBQ) FrontPanelLED\n");
    auto lineA = env.makeLedLine(layout.frontA);
    auto lineB = env.makeLedLine(layout.frontB);
    std::unique_ptr<DualLedBlinker> frontPanelBlinker;
    if (lineA && lineB)
        frontPanelBlinker = std::make_unique<DualLedBlinker>(lineA.get(), lineB.get(),
                                                             kFrontPanelMs, kFrontPanelMs);

    if (greenBlinker) {
        host::NKDbgPrintfW(L"  Start Blink GrnLED\n");
        greenBlinker->setMode(kGreenMode);
    }
    if (frontPanelBlinker) {
        host::NKDbgPrintfW(L"  Start Blink FrontPanelLED\n");
        frontPanelBlinker->setMode(kFrontPanelMode);
    }

    std::lock_guard<std::mutex> lock(ledsLock);
    greenLine = std::move(greenLed);
    frontALine = std::move(lineA);
    frontBLine = std::move(lineB);
    green = std::move(greenBlinker);
    frontPanel = std::move(frontPanelBlinker);
}

void DialogCore::CpuLed::beginMeasuring() {
    windowStart = env.cpuTimes();
}

void DialogCore::CpuLed::stop() {
    {
        std::lock_guard<std::mutex> lock(stopLock);
        stopping = true;
    }
    stopped.notify_all();
}

void DialogCore::CpuLed::pass() {
    {
        // Asleep for the window: the counters measure the machine meanwhile.
        std::unique_lock<std::mutex> lock(stopLock);
        if (host::clock().waitFor(stopped, lock, kWindowMs, [this] { return stopping.load(); }))
            return;
    }

    const std::optional<host::CpuTimes> now = env.cpuTimes();
    m_cpuUsage = loadBetween(windowStart, now);
    messages->post(kCpuUpdateMessage);

    const DWORD blinkMs = env.anySessionActive() ? kActiveBlinkMs : kIdleBlinkMs;
    if (frontPanel) frontPanel->setTimes(blinkMs, blinkMs);
    windowStart = now;
}
