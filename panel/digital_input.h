#pragma once
// DigitalInput: a single line, on when its raw level is positive (active-high)
// or zero (active-low).
#include "panel/io_point.h"

class DigitalInput : public IOPoint {
  public:
    // An input that only keeps its latest values: it has no updater, so it
    // tells no listeners.
    explicit DigitalInput(int historyDepth = 1, bool activeLevel = true);
    // An input that tells listeners (DigitalInputEventListener): it gets an
    // updater of its own that polls it every `updaterPeriod` ms.
    DigitalInput(int historyDepth, DWORD updaterPeriod, bool activeLevel);
    ~DigitalInput() override;

    bool isInput() const override { return true; }
    void setValue(int raw) override;
    void addListener(DigitalInputEventListener* listener) { IOPoint::addListener(listener); }

  protected:
    void notify(IOPointEventListener& listener, const IOValue& value) override;
};
