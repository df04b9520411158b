#pragma once
// Listeners that remember what they were told, safe to read from the test
// thread while a driver or updater thread tells them.
#include "panel/digital_input.h"
#include "panel/multi_digital_input.h"
#include "tests/support/recorded.h"

namespace panel_test {

using testing_support::Recorded;

class DigitalRecorder : public DigitalInputEventListener {
  public:
    void newValue(DigitalInput* input, bool level) override {
        levels.add(level);
        inputs.add(input);
    }
    Recorded<bool> levels;
    Recorded<DigitalInput*> inputs;
};

class MultiRecorder : public MultiDIEventListener {
  public:
    void newValue(MultiDigitalInput* input, int value) override {
        (void)input;
        values.add(value);
    }
    Recorded<int> values;
};

// Only the plain point interface.
class PointRecorder : public IOPointEventListener {
  public:
    int newValue(IOPoint* point) override {
        points.add(point);
        return 0;
    }
    Recorded<IOPoint*> points;
};

}  // namespace panel_test
