#pragma once
// MultiDigitalInput: several lines read as one word (bit n = line n). It
// always has an updater and tells MultiDIEventListener objects the word.
#include "panel/digital_input.h"

class MultiDigitalInput : public DigitalInput {
  public:
    MultiDigitalInput(int historyDepth, DWORD updaterPeriod, bool activeLevel);
    ~MultiDigitalInput() override;

    bool isMulti() const override { return true; }
    void setValue(int raw) override;
    void addListener(MultiDIEventListener* listener) { IOPoint::addListener(listener); }

  protected:
    void notify(IOPointEventListener& listener, const IOValue& value) override;
};
