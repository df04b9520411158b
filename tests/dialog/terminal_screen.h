#pragma once
// What a curses program drew, read back through libvterm's terminal.
#include <string>

struct VTerm;

namespace dialog_test {

class TerminalScreen {
  public:
    TerminalScreen(int rows, int cols);
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    // Feeds the bytes the program wrote (UTF-8 with escape sequences).
    void feed(const std::string& bytes);

    int rows() const { return rows_; }
    std::wstring row(int r) const;
    std::wstring text() const;  // every row, each followed by a line end
    // The first row that contains `fragment`, or -1.
    int find(const std::wstring& fragment) const;

  private:
    const int rows_;
    const int cols_;
    VTerm* terminal_;
};

}  // namespace dialog_test
