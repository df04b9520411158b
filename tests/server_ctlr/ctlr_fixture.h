#pragma once
// What the controller tests share: a temporary unit with its registry, a
// manual clock, a recorded process exit and small waiting helpers.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/process.h"
#include "tests/support/test_support.h"
#include "tests/support/waiting.h"

namespace ctlrtest {

using testing_support::eventually;

// A program at an original path that leaves the file "<name>.ran" beside
// itself when it runs.
void installMarkerProgram(const testing_support::TempUnitRoot& root,
                          const std::wstring& originalPath);
bool markerExists(const testing_support::TempUnitRoot& root, const std::wstring& originalPath);

// The registry text of the unit, installed and read afresh.
void writeRegistry(const testing_support::TempUnitRoot& root, const std::string& body);

// Records the exit code and the clock's tick of a host::ExitProcess call;
// the calling thread then stays parked, as if the process had ended. Later
// calls, also after the recorder is gone, park their thread as well, so no
// thread of a test can end the test's process.
class ExitRecorder {
  public:
    ExitRecorder();
    ~ExitRecorder();
    bool exited() const { return state_->code.load() != kNone; }
    int code() const { return state_->code.load(); }
    DWORD tick() const { return state_->tick.load(); }

  private:
    static constexpr int kNone = 0x7fffffff;
    struct State {
        std::atomic<int> code{kNone};
        std::atomic<DWORD> tick{0};
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace ctlrtest
