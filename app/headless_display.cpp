#include "app/headless_display.h"

#include "platform/sync.h"
#include "platform/text.h"

HeadlessDisplay::HeadlessDisplay(std::FILE* out, HANDLE closeEvent)
    : out_(out), closeEvent_(closeEvent) {}

void HeadlessDisplay::StatusMsg(std::wstring text) {
    std::lock_guard<std::mutex> lock(mutex_);
    statusText_ = std::move(text);
    // One status line per line of output, however the text itself ends.
    std::string line = host::narrow(statusText_);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
}

void HeadlessDisplay::runModal() {
    if (closeEvent_ == NULL_HANDLE) return;
    host::WaitForSingleObject(closeEvent_, INFINITE);
}

std::wstring HeadlessDisplay::statusText() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return statusText_;
}
