#include "tests/dialog/terminal_screen.h"

#include <algorithm>
#include <sstream>

namespace dialog_test {

TerminalScreen::TerminalScreen(int rows, int cols)
    : rows_(rows),
      cols_(cols),
      cells_(static_cast<std::size_t>(rows), std::wstring(static_cast<std::size_t>(cols), L' ')),
      bottom_(rows - 1) {}

std::wstring TerminalScreen::text() const {
    std::wstring all;
    for (const auto& line : cells_) all += line + L"\n";
    return all;
}

int TerminalScreen::find(const std::wstring& fragment) const {
    for (int r = 0; r < rows_; ++r)
        if (cells_[static_cast<std::size_t>(r)].find(fragment) != std::wstring::npos) return r;
    return -1;
}

void TerminalScreen::feed(const std::string& bytes) {
    for (char ch : bytes) {
        const auto byte = static_cast<unsigned char>(ch);
        switch (state_) {
            case State::Escape:
                escape(ch);
                continue;
            case State::EscapeSkipOne:
                state_ = State::Text;
                continue;
            case State::Csi:
                if (byte >= 0x40 && byte <= 0x7E) {
                    csi(ch);
                    state_ = State::Text;
                } else {
                    csiParams_ += ch;
                }
                continue;
            case State::Text:
                break;
        }
        if (pendingBytes_ > 0 && (byte & 0xC0) == 0x80) {
            pending_ = (pending_ << 6) | (byte & 0x3F);
            if (--pendingBytes_ == 0) put(static_cast<wchar_t>(pending_));
            continue;
        }
        pendingBytes_ = 0;
        if (byte == 0x1B) {
            state_ = State::Escape;
        } else if (byte < 0x20 || byte == 0x7F) {
            control(ch);
        } else if (byte < 0x80) {
            put(static_cast<wchar_t>(byte));
        } else if ((byte & 0xE0) == 0xC0) {
            pending_ = byte & 0x1F;
            pendingBytes_ = 1;
        } else if ((byte & 0xF0) == 0xE0) {
            pending_ = byte & 0x0F;
            pendingBytes_ = 2;
        } else if ((byte & 0xF8) == 0xF0) {
            pending_ = byte & 0x07;
            pendingBytes_ = 3;
        }
    }
}

void TerminalScreen::put(wchar_t c) {
    if (wrapPending_) {
        wrapPending_ = false;
        col_ = 0;
        lineFeed();
    }
    cells_[static_cast<std::size_t>(row_)][static_cast<std::size_t>(col_)] = c;
    if (col_ == cols_ - 1)
        wrapPending_ = true;
    else
        ++col_;
}

void TerminalScreen::control(char c) {
    switch (c) {
        case '\r':
            col_ = 0;
            wrapPending_ = false;
            break;
        case '\n':
        case '\v':
        case '\f':
            lineFeed();
            break;
        case '\b':
            if (col_ > 0) --col_;
            wrapPending_ = false;
            break;
        case '\t':
            col_ = std::min((col_ / 8 + 1) * 8, cols_ - 1);
            break;
        default:  // bell, shift in/out and the like
            break;
    }
}

void TerminalScreen::escape(char c) {
    state_ = State::Text;
    switch (c) {
        case '[':
            state_ = State::Csi;
            csiParams_.clear();
            break;
        case '(':
        case ')':
        case '#':
            state_ = State::EscapeSkipOne;
            break;
        case '7':
            savedRow_ = row_;
            savedCol_ = col_;
            break;
        case '8':
            row_ = savedRow_;
            col_ = savedCol_;
            wrapPending_ = false;
            break;
        case 'D':
            lineFeed();
            break;
        case 'E':
            col_ = 0;
            lineFeed();
            break;
        case 'M':
            reverseIndex();
            break;
        case 'c':
            for (int r = 0; r < rows_; ++r) clearRow(r, 0, cols_);
            row_ = col_ = top_ = 0;
            bottom_ = rows_ - 1;
            break;
        default:  // keypad modes and the like
            break;
    }
}

int TerminalScreen::param(std::size_t i, int fallback) const {
    return i < params_.size() && params_[i] > 0 ? params_[i] : fallback;
}

void TerminalScreen::csi(char final) {
    params_.clear();
    bool isPrivate = false;
    std::string text = csiParams_;
    if (!text.empty() && (text[0] == '?' || text[0] == '>' || text[0] == '=')) {
        isPrivate = true;
        text.erase(0, 1);
    }
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ';'))
        params_.push_back(item.empty() ? 0 : std::atoi(item.c_str()));
    if (isPrivate) return;  // modes
    wrapPending_ = false;
    const int n = param(0, 1);
    switch (final) {
        case 'H':
        case 'f':
            row_ = std::clamp(param(0, 1) - 1, 0, rows_ - 1);
            col_ = std::clamp(param(1, 1) - 1, 0, cols_ - 1);
            break;
        case 'A':
            row_ = std::max(row_ - n, 0);
            break;
        case 'B':
            row_ = std::min(row_ + n, rows_ - 1);
            break;
        case 'C':
            col_ = std::min(col_ + n, cols_ - 1);
            break;
        case 'D':
            col_ = std::max(col_ - n, 0);
            break;
        case 'G':
            col_ = std::clamp(n - 1, 0, cols_ - 1);
            break;
        case 'd':
            row_ = std::clamp(n - 1, 0, rows_ - 1);
            break;
        case 'K': {
            const int mode = params_.empty() ? 0 : params_[0];
            if (mode == 0) clearRow(row_, col_, cols_);
            if (mode == 1) clearRow(row_, 0, col_ + 1);
            if (mode == 2) clearRow(row_, 0, cols_);
            break;
        }
        case 'J': {
            const int mode = params_.empty() ? 0 : params_[0];
            if (mode == 0) {
                clearRow(row_, col_, cols_);
                for (int r = row_ + 1; r < rows_; ++r) clearRow(r, 0, cols_);
            } else if (mode == 1) {
                for (int r = 0; r < row_; ++r) clearRow(r, 0, cols_);
                clearRow(row_, 0, col_ + 1);
            } else {
                for (int r = 0; r < rows_; ++r) clearRow(r, 0, cols_);
            }
            break;
        }
        case 'X':
            clearRow(row_, col_, std::min(col_ + n, cols_));
            break;
        case 'P': {
            auto& line = cells_[static_cast<std::size_t>(row_)];
            const int count = std::min(n, cols_ - col_);
            line.erase(static_cast<std::size_t>(col_), static_cast<std::size_t>(count));
            line.append(static_cast<std::size_t>(count), L' ');
            break;
        }
        case '@': {
            auto& line = cells_[static_cast<std::size_t>(row_)];
            const int count = std::min(n, cols_ - col_);
            line.insert(static_cast<std::size_t>(col_), static_cast<std::size_t>(count), L' ');
            line.resize(static_cast<std::size_t>(cols_));
            break;
        }
        case 'L':
            if (row_ >= top_ && row_ <= bottom_)
                for (int i = 0; i < n; ++i) scrollDown(row_, bottom_);
            break;
        case 'M':
            if (row_ >= top_ && row_ <= bottom_)
                for (int i = 0; i < n; ++i) scrollUp(row_, bottom_);
            break;
        case 'S':
            for (int i = 0; i < n; ++i) scrollUp(top_, bottom_);
            break;
        case 'T':
            for (int i = 0; i < n; ++i) scrollDown(top_, bottom_);
            break;
        case 'r':
            top_ = std::clamp(param(0, 1) - 1, 0, rows_ - 1);
            bottom_ = std::clamp(param(1, rows_) - 1, top_, rows_ - 1);
            row_ = 0;
            col_ = 0;
            break;
        default:  // attributes (m) and anything else that draws nothing
            break;
    }
}

void TerminalScreen::lineFeed() {
    if (row_ == bottom_)
        scrollUp(top_, bottom_);
    else if (row_ < rows_ - 1)
        ++row_;
}

void TerminalScreen::reverseIndex() {
    if (row_ == top_)
        scrollDown(top_, bottom_);
    else if (row_ > 0)
        --row_;
}

void TerminalScreen::scrollUp(int top, int bottom) {
    for (int r = top; r < bottom; ++r)
        cells_[static_cast<std::size_t>(r)] = cells_[static_cast<std::size_t>(r + 1)];
    clearRow(bottom, 0, cols_);
}

void TerminalScreen::scrollDown(int top, int bottom) {
    for (int r = bottom; r > top; --r)
        cells_[static_cast<std::size_t>(r)] = cells_[static_cast<std::size_t>(r - 1)];
    clearRow(top, 0, cols_);
}

void TerminalScreen::clearRow(int r, int from, int to) {
    auto& line = cells_[static_cast<std::size_t>(r)];
    for (int c = std::max(from, 0); c < std::min(to, cols_); ++c)
        line[static_cast<std::size_t>(c)] = L' ';
}

}  // namespace dialog_test
