#pragma once
// The status dialog without a window: another display (the headless one,
// printing each status line) shows the status texts, and the dialog's own
// work runs around it as it would behind a window: its initialisation starts
// the CPU/LED thread and, on the KTX board, the power-fail thread.
#include <memory>

#include "app/dialog_core.h"
#include "app/status_window.h"

class HeadlessTovelDlg final : public StatusWindow, private DialogControls {
  public:
    explicit HeadlessTovelDlg(
        std::unique_ptr<StatusWindow> display,
        DialogCore::Environment environment = DialogCore::Environment::unit());

    // Goes straight to the display, which prints from the reporting thread.
    void StatusMsg(std::wstring text) override;
    // The dialog's initialisation, then the display's modal run.
    void runModal() override;

    DialogCore& core() { return core_; }

  private:
    // No bar to draw. The CPU/LED thread's update messages stay in the
    // dialog's queue, which holds at most one of each message.
    void setBarRange(int, int) override {}
    void setBarPosition(int) override {}
    void setStatusText(const std::wstring&) override {}

    std::unique_ptr<StatusWindow> display_;
    DialogCore core_;
};
