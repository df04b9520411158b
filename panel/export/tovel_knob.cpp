// The exported knob: a movable handle to the panel's knob, so that programs
// using the shared library see one small header and nothing of the host layer.
#include <utility>

#include "device/platform_id.h"
#include "panel/knob.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "tovel/knob.h"

namespace tovel {

Knob::Knob(const std::wstring& lineA, const std::wstring& lineB, int lower, int upper, int initial)
    : knob_(std::make_unique<::Knob>(lineA, lineB, lower, upper, initial)) {}

Knob::Knob(int lower, int upper, int initial)
    : knob_(std::make_unique<::Knob>(lower, upper, initial)) {}

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
    host::setUnitRoot(folder);
    host::reloadRegistry();
}

int platform() {
    return getPlatform();
}

}  // namespace tovel
