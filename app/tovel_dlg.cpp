#include "app/tovel_dlg.h"

#include <curses.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cwchar>

#include "app/dialog_layout.h"
#include "platform/sync.h"

namespace {

constexpr int kKeyWaitMs = 50;  // how often the window looks at its messages and LEDs
constexpr int kEscapeDelayMs = 25;
constexpr std::size_t kDebugLinesOnExit = 10;
constexpr short kLedPair = 1;
constexpr short kBarPair = 2;

struct Frame {
    wchar_t topLeft, topRight, bottomLeft, bottomRight, horizontal, vertical;
};
constexpr Frame kUnicodeFrame{L'\u250C', L'\u2510', L'\u2514', L'\u2518', L'\u2500', L'\u2502'};
constexpr Frame kAsciiFrame{L'+', L'+', L'+', L'+', L'-', L'|'};

}  // namespace

// The curses screen on the process's terminal.
struct CTovelDlg::Screen {
    SCREEN* screen = nullptr;
    bool utf8 = false;
    bool colors = false;

    bool open() {
        // Wide characters need the terminal's own character set.
        std::setlocale(LC_CTYPE, "");
        utf8 = MB_CUR_MAX > 1;
        screen = newterm(nullptr, stdout, stdin);
        if (!screen) return false;
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        set_escdelay(kEscapeDelayMs);
        curs_set(0);
        wtimeout(stdscr, kKeyWaitMs);
        if (has_colors()) {
            colors = true;
            start_color();
            use_default_colors();
            init_pair(kLedPair, COLOR_GREEN, -1);
            init_pair(kBarPair, COLOR_CYAN, -1);
        }
        return true;
    }

    void close() {
        if (!screen) return;
        endwin();
        delscreen(screen);
        screen = nullptr;
    }

    ~Screen() { close(); }
};

CTovelDlg::CTovelDlg(Options options, DialogCore::Environment environment)
    : options_(options), core_(std::move(environment)) {}

CTovelDlg::~CTovelDlg() {
    std::lock_guard<std::mutex> lock(screenLock_);
    screen_.reset();
}

void CTovelDlg::StatusMsg(std::wstring text) {
    core_.StatusMsg(std::move(text));
}

bool CTovelDlg::OnInitDialog() {
    // The dialog's caption, labels and controls are drawn by draw(); what is
    // left is the work shared with every way of showing the dialog.
    return core_.OnInitDialog(*this);
}

void CTovelDlg::setBarRange(int low, int high) {
    barLow_ = low;
    barHigh_ = high;
    dirty_ = true;
}

void CTovelDlg::setBarPosition(int position) {
    if (position == barPosition_) return;
    barPosition_ = position;
    dirty_ = true;
}

void CTovelDlg::setStatusText(const std::wstring& text) {
    if (text == statusShown_) return;
    statusShown_ = text;
    dirty_ = true;
}

bool CTovelDlg::closesWindow(int key) {
    return key == '\n' || key == '\r' || key == KEY_ENTER || key == 27 /* Esc */ ||
           key == 3 /* Ctrl-C, when it reaches the window as a key */;
}

void CTovelDlg::runModal() {
    {
        std::lock_guard<std::mutex> lock(screenLock_);
        screen_ = std::make_unique<Screen>();
        if (!screen_->open()) screen_.reset();
    }
    if (!screen_) {
        runWithoutScreen();
        return;
    }
    if (options_.holdDebugOutput) holdDebugOutput();
    previousExitHandler_ = host::setExitHandler([this](int code) { onProcessExit(code); });

    OnInitDialog();
    for (;;) {
        core_.dispatchMessages(*this);
        const LedStates leds = core_.ledStates();
        if (leds.present != ledsShown_.present || leds.green != ledsShown_.green ||
            leds.frontA != ledsShown_.frontA || leds.frontB != ledsShown_.frontB) {
            ledsShown_ = leds;
            dirty_ = true;
        }
        int key = ERR;
        {
            std::lock_guard<std::mutex> lock(screenLock_);
            if (dirty_ || debugVersion_ != debugShown_) draw();
            key = wgetch(stdscr);
        }
        if (key == KEY_RESIZE) dirty_ = true;
        if (key != ERR && closesWindow(key)) break;
        if (options_.closeEvent != NULL_HANDLE &&
            host::WaitForSingleObject(options_.closeEvent, 0) == WAIT_OBJECT_0)
            break;
    }

    host::setExitHandler(previousExitHandler_);
    {
        std::lock_guard<std::mutex> lock(screenLock_);
        screen_.reset();
    }
    leaveLastDebugLines();
}

void CTovelDlg::runWithoutScreen() {
    // The terminal could not be driven after all: the dialog's work still
    // runs, and the operator's stop signal ends it.
    OnInitDialog();
    if (options_.closeEvent != NULL_HANDLE)
        host::WaitForSingleObject(options_.closeEvent, INFINITE);
}

std::wstring CTovelDlg::barText(int position, int cells, wchar_t fill, wchar_t empty) {
    if (cells <= 0) return {};
    const int clamped = std::clamp(position, 0, 100);
    const int filled = (clamped * cells + 50) / 100;
    return std::wstring(static_cast<std::size_t>(filled), fill) +
           std::wstring(static_cast<std::size_t>(cells - filled), empty);
}

std::wstring CTovelDlg::fieldText(const std::wstring& text, int cells) {
    std::wstring line;
    for (wchar_t c : text) line += (c < L' ' || c == 0x7F) ? L' ' : c;
    while (!line.empty() && line.back() == L' ') line.pop_back();
    if (cells >= 0 && line.size() > static_cast<std::size_t>(cells))
        line.resize(static_cast<std::size_t>(cells));
    return line;
}

void CTovelDlg::draw() {
    dirty_ = false;
    erase();
    const DialogLayout layout = DialogLayout::forTerminal(COLS, LINES, statusShown_);
    if (!layout.fits) {
        // Nothing of the dialog would be whole: say so instead of drawing
        // over its frame.
        const std::wstring message = std::wstring(DialogLayout::kTooSmall) + L" (" +
                                     std::to_wstring(DialogLayout::kMinColumns) + L"x" +
                                     std::to_wstring(DialogLayout::kMinLines) + L" needed)";
        const auto rows = wrapText(message, COLS, std::max(LINES, 1));
        for (std::size_t i = 0; i < rows.size(); ++i)
            mvaddwstr(static_cast<int>(i), 0, rows[i].c_str());
        refresh();
        return;
    }
    const int x = layout.x;
    const int y = layout.y;
    const int width = layout.width;
    const int inner = layout.inner();

    // Frame and caption with its OK button. Drawn with plain characters
    // rather than the terminal's line-drawing set, which some terminals
    // ignore in UTF-8 mode.
    const Frame& frame = screen_->utf8 ? kUnicodeFrame : kAsciiFrame;
    const std::wstring rule(static_cast<std::size_t>(width - 2), frame.horizontal);
    mvaddwstr(y, x, (frame.topLeft + rule + frame.topRight).c_str());
    for (int row = 1; row < layout.height - 1; ++row) {
        mvaddnwstr(y + row, x, &frame.vertical, 1);
        mvaddnwstr(y + row, x + width - 1, &frame.vertical, 1);
    }
    mvaddwstr(y + layout.height - 1, x, (frame.bottomLeft + rule + frame.bottomRight).c_str());
    attron(A_BOLD);
    mvaddwstr(y, x + 2, L" Tovel ");
    attroff(A_BOLD);
    mvaddwstr(y, x + width - 6, L"[OK]");

    // The status line: the edit control, as many rows as the text needs.
    mvaddwstr(y + layout.statusLabelRow(), x + 2, L"Status:");
    attron(A_REVERSE);
    for (std::size_t i = 0; i < layout.statusRows.size(); ++i) {
        const std::wstring& row = layout.statusRows[i];
        mvaddwstr(y + layout.firstStatusRow() + static_cast<int>(i), x + 2,
                  (row + std::wstring(static_cast<std::size_t>(inner) - row.size(), L' ')).c_str());
    }
    attroff(A_REVERSE);

    // The load bar.
    const int span = std::max(barHigh_ - barLow_, 1);
    const int percent = (std::clamp(barPosition_, barLow_, barHigh_) - barLow_) * 100 / span;
    mvaddwstr(y + layout.usageRow(), x + 2, L"%CPU Usage");
    mvprintw(y + layout.usageRow(), x + width - 7, "%3d%%", percent);
    const std::wstring bar =
        barText(percent, inner, screen_->utf8 ? L'\u2588' : L'#', screen_->utf8 ? L'\u2591' : L'.');
    if (screen_->colors) attron(COLOR_PAIR(kBarPair));
    mvaddwstr(y + layout.barRow(), x + 2, bar.c_str());
    if (screen_->colors) attroff(COLOR_PAIR(kBarPair));

    // The LEDs as their lines stand, one after another (29 cells: within
    // the narrowest dialog).
    const wchar_t* on = screen_->utf8 ? L"\u25CF" : L"*";
    const wchar_t* off = screen_->utf8 ? L"\u25CB" : L"o";
    int col = x + 2;
    auto led = [&](const wchar_t* label, bool lit) {
        mvaddwstr(y + layout.ledRow(), col, label);
        col += static_cast<int>(std::wcslen(label));
        if (lit && screen_->colors) attron(COLOR_PAIR(kLedPair) | A_BOLD);
        mvaddwstr(y + layout.ledRow(), col, lit ? on : off);
        if (lit && screen_->colors) attroff(COLOR_PAIR(kLedPair) | A_BOLD);
        col += 1;
    };
    if (ledsShown_.present) {
        led(L"LEDs  Green ", ledsShown_.green);
        led(L"  Front A ", ledsShown_.frontA);
        led(L"  B ", ledsShown_.frontB);
    } else {
        mvaddwstr(y + layout.ledRow(), x + 2, L"LEDs  -");
    }
    mvaddwstr(y + layout.height, x + 2, L"Enter or Esc: OK");

    // The held debug output's last lines, in the rows around the dialog.
    if (options_.holdDebugOutput && layout.freeRows.size() > 1) {
        std::lock_guard<std::mutex> lock(debugLock_);
        debugShown_ = debugVersion_;
        attron(A_DIM);
        mvaddwstr(layout.freeRows[0], 0, L"Debug output:");
        const std::size_t rows = layout.freeRows.size() - 1;
        const auto& lines = debugLines_.whole;
        const std::size_t count = std::min(lines.size(), rows);
        for (std::size_t i = 0; i < count; ++i) {
            const std::wstring& line = lines[lines.size() - count + i];
            mvaddwstr(layout.freeRows[1 + rows - count + i], 0, fieldText(line, COLS).c_str());
        }
        attroff(A_DIM);
    }
    refresh();
}

void CTovelDlg::holdDebugOutput() {
    holdingDebug_ = true;
    // The lines written before the window opened (the watchdog's arming, the
    // first enumeration) start its pane.
    // (The sink is set outside debugLock_: a writer holds the sink's lock
    // when it calls onDebugText, which takes debugLock_.)
    host::DebugHistory earlier;
    previousDebugSink_ =
        host::setDebugSink([this](const std::wstring& text) { onDebugText(text); }, &earlier);
    std::lock_guard<std::mutex> lock(debugLock_);
    // Text written since then continues the earlier unfinished line.
    auto& lines = debugLines_.whole;
    if (lines.empty())
        debugLines_.unfinished = earlier.unfinishedLine + debugLines_.unfinished;
    else
        lines.front() = earlier.unfinishedLine + lines.front();
    lines.insert(lines.begin(), earlier.recentLines.begin(), earlier.recentLines.end());
    while (lines.size() > debugLines_.kept) lines.pop_front();
    ++debugVersion_;
}

void CTovelDlg::releaseDebugOutput() {
    if (!holdingDebug_.exchange(false)) return;
    host::setDebugSink(previousDebugSink_);
}

void CTovelDlg::onDebugText(const std::wstring& text) {
    std::lock_guard<std::mutex> lock(debugLock_);
    debugLines_.add(text);
    ++debugVersion_;
}

void CTovelDlg::leaveLastDebugLines() {
    if (!holdingDebug_.load()) return;
    releaseDebugOutput();
    // What the pane showed last, where the operator can still read it.
    std::deque<std::wstring> last;
    {
        std::lock_guard<std::mutex> lock(debugLock_);
        last = debugLines_.whole;
        if (!debugLines_.unfinished.empty()) last.push_back(debugLines_.unfinished);
    }
    const std::size_t skip = last.size() > kDebugLinesOnExit ? last.size() - kDebugLinesOnExit : 0;
    for (std::size_t i = skip; i < last.size(); ++i) host::NKDbgPrintfW(L"%s\n", last[i].c_str());
}

void CTovelDlg::onProcessExit(int code) {
    {
        std::lock_guard<std::mutex> lock(screenLock_);
        if (screen_) screen_->close();
    }
    leaveLastDebugLines();
    host::setExitHandler(previousExitHandler_);
    host::ExitProcess(code);
}
