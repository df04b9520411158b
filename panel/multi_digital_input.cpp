#include "panel/multi_digital_input.h"

MultiDigitalInput::MultiDigitalInput(int historyDepth, DWORD updaterPeriod, bool activeLevel)
    : DigitalInput(historyDepth, activeLevel) {
    createUpdater(updaterPeriod);
}

MultiDigitalInput::~MultiDigitalInput() {
    shutDown();
}

void MultiDigitalInput::setValue(int raw) {
    append(IOValue(raw));
    if (historyDepth() == 0) dispatchNow();
}

void MultiDigitalInput::notify(IOPointEventListener& listener, const IOValue& value) {
    if (auto* multi = dynamic_cast<MultiDIEventListener*>(&listener))
        multi->newValue(this, value.raw());
    else
        listener.newValue(this);
}
