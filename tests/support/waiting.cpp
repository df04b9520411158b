#include "tests/support/waiting.h"

namespace testing_support {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool advanceUntil(host::ManualClock& clock, DWORD step, const std::function<bool()>& condition,
                  std::chrono::milliseconds limit) {
    return eventually(
        [&] {
            if (condition()) return true;
            clock.advance(step);
            return false;
        },
        limit);
}

ClockPusher::ClockPusher(host::ManualClock& clock, DWORD step)
    : thread_([this, &clock, step] {
          while (!stop_) {
              clock.advance(step);
              std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
      }) {}

ClockPusher::~ClockPusher() {
    stop_ = true;
    thread_.join();
}

}  // namespace testing_support
