#include "panel/digital_input.h"

DigitalInput::DigitalInput(int historyDepth, bool activeLevel)
    : IOPoint(historyDepth, activeLevel) {}

DigitalInput::DigitalInput(int historyDepth, DWORD updaterPeriod, bool activeLevel)
    : IOPoint(historyDepth, activeLevel) {
    createUpdater(updaterPeriod);
}

DigitalInput::~DigitalInput() {
    shutDown();
}

void DigitalInput::setValue(int raw) {
    const bool level = levelOf(raw);
    if (historyDepth() > 0) {
        append(IOValue(level));
    } else if (updater()) {
        // Without history the level is queued only for the moment it takes to
        // hand it to the listeners, right here.
        append(IOValue(level));
        dispatchNow();
    }
}

void DigitalInput::notify(IOPointEventListener& listener, const IOValue& value) {
    if (auto* digital = dynamic_cast<DigitalInputEventListener*>(&listener))
        digital->newValue(this, value.level());
    else
        listener.newValue(this);
}
