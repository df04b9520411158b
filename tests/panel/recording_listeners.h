#pragma once
// Listeners that remember what they were told, safe to read from the test
// thread while a driver or updater thread tells them.
#include <mutex>
#include <utility>
#include <vector>

#include "panel/digital_input.h"
#include "panel/multi_digital_input.h"

namespace panel_test {

template <class Value>
class Recorded {
  public:
    void add(Value value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.push_back(value);
    }
    std::vector<Value> values() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }
    std::size_t count() const { return values().size(); }

  private:
    mutable std::mutex mutex_;
    std::vector<Value> values_;
};

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
