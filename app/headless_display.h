#pragma once
// A status display without a screen: every status line goes to an output
// stream as it comes, and the display is closed by an event (the operator's
// stop signal) as a window would be by its OK button.
#include <cstdio>
#include <mutex>
#include <string>

#include "app/status_window.h"
#include "platform/win_types.h"

class HeadlessDisplay final : public StatusWindow {
  public:
    // Prints to `out` (stdout for the program) until `closeEvent` is set.
    HeadlessDisplay(std::FILE* out, HANDLE closeEvent);

    void StatusMsg(std::wstring text) override;
    void runModal() override;
    // The line shown last.
    std::wstring statusText() const;

  private:
    std::FILE* const out_;
    const HANDLE closeEvent_;
    mutable std::mutex mutex_;
    std::wstring statusText_;
};
