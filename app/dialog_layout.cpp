#include "app/dialog_layout.h"

#include <algorithm>

std::vector<std::wstring> wrapText(const std::wstring& text, int cells, int maxRows) {
    std::wstring clean;
    for (wchar_t c : text) clean += (c < L' ' || c == 0x7F) ? L' ' : c;
    std::vector<std::wstring> rows;
    if (cells <= 0 || maxRows <= 0) return {std::wstring()};
    const std::size_t width = static_cast<std::size_t>(cells);
    std::size_t at = clean.find_first_not_of(L' ');
    while (at != std::wstring::npos && static_cast<int>(rows.size()) < maxRows) {
        std::size_t end = std::min(at + width, clean.size());
        if (end < clean.size() && clean[end] != L' ') {
            // Break at the last blank inside the row, if there is one.
            const std::size_t blank = clean.rfind(L' ', end);
            if (blank != std::wstring::npos && blank > at) end = blank;
        }
        std::wstring row = clean.substr(at, end - at);
        while (!row.empty() && row.back() == L' ') row.pop_back();
        rows.push_back(row);
        at = clean.find_first_not_of(L' ', end);
    }
    if (rows.empty()) rows.emplace_back();
    return rows;
}

DialogLayout DialogLayout::forTerminal(int columns, int lines, const std::wstring& status) {
    DialogLayout layout;
    if (columns < kMinColumns || lines < kMinLines) return layout;
    layout.fits = true;
    layout.width = std::min(columns, kMaxWidth);
    layout.statusRows = wrapText(status, layout.inner(), kMaxStatusRows);
    layout.height = 6 + static_cast<int>(layout.statusRows.size());
    layout.x = (columns - layout.width) / 2;
    layout.y = std::max((lines - layout.height - 1) / 2, 0);
    for (int row = 0; row < lines; ++row)
        if (row < layout.y || row > layout.y + layout.height) layout.freeRows.push_back(row);
    return layout;
}
