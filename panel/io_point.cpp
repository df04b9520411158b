#include "panel/io_point.h"

#include <algorithm>
#include <mutex>

IOPoint::IOPoint(int historyDepth, bool activeLevel)
    : historyDepth_(std::max(historyDepth, 0)), activeLevel_(activeLevel) {}

IOPoint::~IOPoint() {
    shutDown();
}

void IOPoint::shutDown() {
    if (ownedDriver_) {
        ownedDriver_->halt();
        ownedDriver_.reset();
    }
    driver_ = nullptr;
    std::vector<IODriver*> registrations;
    {
        host::LockGuard guard(lock_);
        registrations.swap(registrations_);
    }
    for (IODriver* driver : registrations) driver->detach(this);
    updater_.reset();
}

void IOPoint::noteRegistration(IODriver* driver) {
    host::LockGuard guard(lock_);
    if (std::find(registrations_.begin(), registrations_.end(), driver) == registrations_.end())
        registrations_.push_back(driver);
}

void IOPoint::forgetRegistration(IODriver* driver) {
    host::LockGuard guard(lock_);
    std::erase(registrations_, driver);
    if (driver_ == driver && !ownedDriver_) driver_ = nullptr;
}

void IOPoint::setValue(int raw) {
    if (historyDepth_ == 0 && updater_) {
        append(IOValue(raw));
        dispatchNow();
    }
}

bool IOPoint::hasEvents() {
    host::LockGuard guard(lock_);
    return !history_.empty();
}

// The listeners of this round are meant to see currentValue() after the
// removal. When the queue held a single value that would be nothing, so they
// get the value just removed instead: a listener is never handed a missing
// value, and a point without history hands over exactly the value just set.
// Taken in the same step as the removal, so a value appended meanwhile by
// another thread cannot slip in between.
void IOPoint::removeEvent() {
    host::LockGuard guard(lock_);
    if (history_.empty()) return;
    IOValue removed = history_.front();
    history_.pop_front();
    dispatched_ = history_.empty() ? removed : history_.front();
}

std::optional<IOValue> IOPoint::currentValue() const {
    host::LockGuard guard(lock_);
    if (history_.empty()) return std::nullopt;
    return history_.front();
}

std::size_t IOPoint::queuedCount() const {
    host::LockGuard guard(lock_);
    return history_.size();
}

void IOPoint::addListener(IOPointEventListener* listener) {
    if (updater_) updater_->addListener(listener);
}

bool IOPoint::removeListener(IOPointEventListener* listener) {
    return updater_ && updater_->removeListener(listener);
}

void IOPoint::adoptDriver(std::unique_ptr<IODriver> driver) {
    if (ownedDriver_) ownedDriver_->halt();
    ownedDriver_ = std::move(driver);
    driver_ = ownedDriver_.get();
}

void IOPoint::createUpdater(DWORD period) {
    updater_ = std::make_unique<Updater>(*this, period, [this](IOPointEventListener& listener) {
        std::optional<IOValue> value;
        {
            host::LockGuard guard(lock_);
            value = dispatched_;
        }
        if (value) notify(listener, *value);
    });
}

void IOPoint::append(IOValue value) {
    host::LockGuard guard(lock_);
    history_.push_back(value);
    const std::size_t keep = static_cast<std::size_t>(std::max(historyDepth_, 1));
    while (history_.size() > keep) history_.pop_front();
}

void IOPoint::dispatchNow() {
    if (updater_) updater_->dispatch();
}

void IOPoint::notify(IOPointEventListener& listener, const IOValue& value) {
    (void)value;
    listener.newValue(this);
}
