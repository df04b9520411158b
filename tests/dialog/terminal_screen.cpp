#include "tests/dialog/terminal_screen.h"

#include <vterm.h>

namespace dialog_test {

TerminalScreen::TerminalScreen(int rows, int cols)
    : rows_(rows), cols_(cols), terminal_(vterm_new(rows, cols)) {
    vterm_set_utf8(terminal_, 1);
    // Answers to the program's queries go nowhere: the test types its own keys.
    vterm_output_set_callback(
        terminal_, [](const char*, size_t, void*) {}, nullptr);
    vterm_screen_reset(vterm_obtain_screen(terminal_), 1);
}

TerminalScreen::~TerminalScreen() {
    vterm_free(terminal_);
}

void TerminalScreen::feed(const std::string& bytes) {
    vterm_input_write(terminal_, bytes.data(), bytes.size());
}

std::wstring TerminalScreen::row(int r) const {
    std::wstring line;
    VTermScreenCell cell;
    for (int c = 0; c < cols_; ++c) {
        vterm_screen_get_cell(vterm_obtain_screen(terminal_), VTermPos{r, c}, &cell);
        if (cell.chars[0] == static_cast<uint32_t>(-1)) continue;  // right half of a wide one
        line += cell.chars[0] ? static_cast<wchar_t>(cell.chars[0]) : L' ';
    }
    return line;
}

std::wstring TerminalScreen::text() const {
    std::wstring all;
    for (int r = 0; r < rows_; ++r) all += row(r) + L"\n";
    return all;
}

int TerminalScreen::find(const std::wstring& fragment) const {
    for (int r = 0; r < rows_; ++r)
        if (row(r).find(fragment) != std::wstring::npos) return r;
    return -1;
}

}  // namespace dialog_test
