#pragma once
// The application: starts the socket layer and the server controller, runs
// the status display until the operator closes it, then ends the board
// registry and the controller.
#include <functional>
#include <memory>

#include "app/status_window.h"

class CTovelApp {
  public:
    // Makes the status display when the application shows it.
    using DisplayFactory = std::function<std::unique_ptr<StatusWindow>()>;
    explicit CTovelApp(DisplayFactory makeDisplay);
    CTovelApp(const CTovelApp&) = delete;
    CTovelApp& operator=(const CTovelApp&) = delete;

    // Start-up, display and orderly end of the display; always answers false
    // so that the application ends when it returns.
    bool InitInstance();
    // Deletes the controller if there is one; answers the exit code.
    int ExitInstance();

    // The application's run: InitInstance, then ExitInstance. Answers the
    // process exit code.
    int run();

    // The open status display, or null: the only way status texts reach it.
    StatusWindow* m_pStatusDlg = nullptr;

  private:
    DisplayFactory makeDisplay_;
};
