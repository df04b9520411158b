// Kept apart from the window's drawing: the terminal description header
// defines many short macro names.
#include <curses.h>
#include <term.h>

#include "app/tovel_dlg.h"

bool CTovelDlg::terminalUsable() {
    int error = 0;
    if (setupterm(nullptr, 1, &error) != OK) return false;
    del_curterm(cur_term);
    return true;
}
