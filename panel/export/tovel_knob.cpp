// The exported knob: a movable handle to the panel's knob, so that programs
// using the shared library see one small header and nothing of the host layer.
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "device/platform_id.h"
#include "panel/digital_input.h"
#include "panel/knob.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "tovel/knob.h"

namespace tovel {
namespace {

// How often a line's updater looks for queued levels; a line has none (its
// levels go to the knob at once), so it only has to notice that it ends.
constexpr DWORD kLineUpdaterPeriodMs = 1000;

std::mutex& rootMutex() {
    static std::mutex m;
    return m;
}
bool rootChosen = false;  // under rootMutex()

// The unit root as `tovel` finds it: setUnitRoot, else TOVEL_ROOT, else the
// host layer's default "unit".
void chooseUnitRoot() {
    std::lock_guard<std::mutex> lock(rootMutex());
    if (rootChosen) return;
    rootChosen = true;
    const char* fromEnvironment = std::getenv("TOVEL_ROOT");
    if (fromEnvironment && *fromEnvironment) {
        host::setUnitRoot(fromEnvironment);
        host::reloadRegistry();
    }
}

}  // namespace

struct DigitalInput::Line {
    explicit Line(bool activeLevel)
        : input(/*historyDepth=*/0, kLineUpdaterPeriodMs, activeLevel) {}
    ::DigitalInput input;
    std::atomic<bool> on{false};
};

DigitalInput::DigitalInput(bool activeLevel) : line_(std::make_unique<Line>(activeLevel)) {}

DigitalInput::~DigitalInput() = default;

void DigitalInput::setValue(int raw) {
    line_->on = line_->input.activeLevel() ? raw > 0 : raw == 0;
    line_->input.setValue(raw);
}

bool DigitalInput::isOn() const {
    return line_->on.load();
}

Knob::Knob(const std::wstring& lineA, const std::wstring& lineB, int lower, int upper, int initial)
    : knob_((chooseUnitRoot(), std::make_unique<::Knob>(lineA, lineB, lower, upper, initial))) {}

Knob::Knob(DigitalInput* lineA, DigitalInput* lineB, int lower, int upper, int initial)
    : knob_((chooseUnitRoot(), std::make_unique<::Knob>(lineA ? &lineA->line_->input : nullptr,
                                                        lineB ? &lineB->line_->input : nullptr,
                                                        lower, upper, initial))) {}

Knob::Knob(int lower, int upper, int initial)
    : knob_((chooseUnitRoot(), std::make_unique<::Knob>(lower, upper, initial))) {}

Knob::~Knob() = default;
Knob::Knob(Knob&& other) noexcept = default;
Knob& Knob::operator=(Knob&& other) noexcept = default;

void Knob::addListener(KnobEventListener* listener) {
    if (knob_) knob_->addListener(listener);
}

void Knob::removeListener(KnobEventListener* listener) {
    if (knob_) knob_->removeListener(listener);
}

int Knob::getCount() const {
    return knob_ ? knob_->getCount() : 0;
}

float Knob::getRate() const {
    return knob_ ? knob_->getRate() : 0.0f;
}

void Knob::setRange(int lower, int upper, int increment, int value, bool wrap) {
    if (knob_) knob_->setRange(lower, upper, increment, value, wrap);
}

void Knob::setRange(unsigned lower, unsigned upper, unsigned increment, unsigned value, bool wrap) {
    if (knob_) knob_->setRange(lower, upper, increment, value, wrap);
}

void Knob::setIncrementAmount(int increment) {
    if (knob_) knob_->setIncrementAmount(increment);
}

bool Knob::takeFocus(int lower, int upper, int increment, int value, KnobEventListener* owner,
                     bool wrap) {
    return knob_ && knob_->takeFocus(lower, upper, increment, value, owner, wrap);
}

bool Knob::releaseFocus(KnobEventListener* owner) {
    return knob_ && knob_->releaseFocus(owner);
}

unsigned Knob::codeOrderErrors() const {
    return knob_ ? knob_->codeOrderErrorCount() : 0;
}

unsigned Knob::swErrors() const {
    return knob_ ? knob_->swErrorCount() : 0;
}

void setUnitRoot(const std::string& folder) {
    std::lock_guard<std::mutex> lock(rootMutex());
    rootChosen = true;
    host::setUnitRoot(folder);
    host::reloadRegistry();
}

int platform() {
    chooseUnitRoot();
    return getPlatform();
}

}  // namespace tovel
