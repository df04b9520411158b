#pragma once
// Just enough of a VT100 to read back what a curses program drew: text,
// cursor addressing and moves, erasing, scrolling regions and auto-wrap.
// Attributes and character-set switches are ignored.
#include <string>
#include <vector>

namespace dialog_test {

class TerminalScreen {
  public:
    TerminalScreen(int rows, int cols);

    // Feeds the bytes the program wrote (UTF-8 with escape sequences).
    void feed(const std::string& bytes);

    int rows() const { return rows_; }
    std::wstring row(int r) const { return cells_[static_cast<std::size_t>(r)]; }
    std::wstring text() const;  // every row, each followed by a line end
    // The first row that contains `fragment`, or -1.
    int find(const std::wstring& fragment) const;

  private:
    void put(wchar_t c);
    void control(char c);
    void escape(char c);
    void csi(char final);
    void lineFeed();
    void reverseIndex();
    void scrollUp(int top, int bottom);
    void scrollDown(int top, int bottom);
    void clearRow(int r, int from, int to);
    int param(std::size_t i, int fallback) const;

    const int rows_;
    const int cols_;
    std::vector<std::wstring> cells_;
    int row_ = 0;
    int col_ = 0;
    bool wrapPending_ = false;
    int top_ = 0;
    int bottom_;
    int savedRow_ = 0;
    int savedCol_ = 0;

    enum class State { Text, Escape, EscapeSkipOne, Csi };
    State state_ = State::Text;
    std::string csiParams_;
    std::vector<int> params_;
    // A UTF-8 sequence in progress.
    char32_t pending_ = 0;
    int pendingBytes_ = 0;
};

}  // namespace dialog_test
