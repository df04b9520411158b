#pragma once
// A list that one thread adds to while the test thread reads it.
#include <mutex>
#include <vector>

namespace testing_support {

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

}  // namespace testing_support
