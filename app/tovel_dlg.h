#pragma once
// CTovelDlg: the operator's status window on a terminal, drawn with curses:
// the caption "Tovel", the "Status:" line with the latest status text, the
// "%CPU Usage" bar and the unit's LEDs (green, front panel A and B) as their
// lines stand, so a person sees what the panel would show. Enter or Escape
// closes it, as the caption's OK button did; so does the operator's stop
// signal (Ctrl-C, SIGTERM), which arrives as the close event.
//
// Other threads only store a value in the dialog and post a message; the
// thread that runs runModal() handles the messages and draws.
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "app/dialog_core.h"
#include "app/status_window.h"
#include "platform/debug_out.h"
#include "platform/process.h"
#include "platform/win_types.h"

class CTovelDlg final : public StatusWindow, private DialogControls {
  public:
    struct Options {
        // Set by the operator's stop signal; ends the window like Enter.
        HANDLE closeEvent = NULL_HANDLE;
        // Keeps the debug output (stderr by default) from writing over the
        // window: while the window is open the output is held, and its last
        // lines are shown under the dialog. Off when it goes to a file.
        bool holdDebugOutput = true;
    };

    explicit CTovelDlg(Options options,
                       DialogCore::Environment environment = DialogCore::Environment::unit());
    ~CTovelDlg() override;
    CTovelDlg(const CTovelDlg&) = delete;
    CTovelDlg& operator=(const CTovelDlg&) = delete;

    // Whether curses can drive the terminal that TERM names.
    static bool terminalUsable();

    // Any thread.
    void StatusMsg(std::wstring text) override;
    // Opens the window, runs it until the operator closes it, restores the
    // terminal.
    void runModal() override;

    DialogCore& core() { return core_; }

    // The text of the bar: `cells` characters, of which position % are
    // `fill` and the rest `empty`; position is cut to 0..100.
    static std::wstring barText(int position, int cells, wchar_t fill, wchar_t empty);
    // A status text as one line of at most `cells` characters: line ends and
    // other control characters become blanks; a longer text shows its start.
    static std::wstring fieldText(const std::wstring& text, int cells);

  private:
    struct Screen;

    // DialogControls, on the window's own thread.
    void setBarRange(int low, int high) override;
    void setBarPosition(int position) override;
    void setStatusText(const std::wstring& text) override;

    bool OnInitDialog();
    void runWithoutScreen();
    // True when the key closes the window.
    static bool closesWindow(int key);
    void draw();
    void holdDebugOutput();
    void releaseDebugOutput();
    // Gives the debug output back and writes the pane's last lines to it.
    void leaveLastDebugLines();
    void onDebugText(const std::wstring& text);
    // The process is ending from another thread (restart, unit reset): the
    // terminal is given back first.
    void onProcessExit(int code);

    const Options options_;
    DialogCore core_;
    std::unique_ptr<Screen> screen_;
    std::mutex screenLock_;  // curses calls: the window's thread, or an ending process

    // What the controls show; the window's thread only.
    int barLow_ = 0;
    int barHigh_ = 100;
    int barPosition_ = 0;
    std::wstring statusShown_;
    LedStates ledsShown_;
    bool dirty_ = true;

    // Held debug output.
    std::mutex debugLock_;
    host::DebugLines debugLines_;            // as many lines as the debug history keeps
    std::atomic<unsigned> debugVersion_{0};  // bumped by any thread that writes debug output
    unsigned debugShown_ = 0;
    std::atomic<bool> holdingDebug_{false};
    host::DebugSink previousDebugSink_;
    host::ExitHandler previousExitHandler_;
};
