#include "app/headless_tovel_dlg.h"

HeadlessTovelDlg::HeadlessTovelDlg(std::unique_ptr<StatusWindow> display,
                                   DialogCore::Environment environment)
    : display_(std::move(display)), core_(std::move(environment)) {}

void HeadlessTovelDlg::StatusMsg(std::wstring text) {
    if (display_) display_->StatusMsg(std::move(text));
}

void HeadlessTovelDlg::runModal() {
    core_.OnInitDialog(*this);
    if (display_) display_->runModal();
}
