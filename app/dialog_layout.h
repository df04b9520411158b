#pragma once
// Where the status window's parts go on a terminal of a given size: the
// dialog is centred, as wide as the terminal allows (up to kMaxWidth), and
// its status field wraps a long status text onto up to kMaxStatusRows rows.
// Below kMinColumns x kMinLines the window only says it is too small.
#include <string>
#include <vector>

struct DialogLayout {
    static constexpr int kMinColumns = 40;
    static constexpr int kMinLines = 10;  // the dialog with the most status rows, and its key line
    static constexpr int kMaxWidth = 76;
    static constexpr int kMaxStatusRows = 3;
    static constexpr const wchar_t* kTooSmall = L"Terminal too small for the Tovel window";

    bool fits = false;
    int x = 0, y = 0;                      // the dialog's top left corner
    int width = 0, height = 0;             // frame included; the key line is the row below
    std::vector<std::wstring> statusRows;  // at least one
    // Rows of the terminal the dialog and its key line leave free, top first.
    std::vector<int> freeRows;

    // Rows within the dialog, from its top.
    int statusLabelRow() const { return 1; }
    int firstStatusRow() const { return 2; }
    int usageRow() const { return 2 + static_cast<int>(statusRows.size()); }
    int barRow() const { return usageRow() + 1; }
    int ledRow() const { return usageRow() + 2; }
    int inner() const { return width - 4; }

    static DialogLayout forTerminal(int columns, int lines, const std::wstring& status);
};

// `text` as rows of at most `cells` characters, broken at blanks where it can
// (a longer word is cut), at most `maxRows` rows (the rest is dropped).
// Control characters become blanks. An empty text is one empty row.
std::vector<std::wstring> wrapText(const std::wstring& text, int cells, int maxRows);
