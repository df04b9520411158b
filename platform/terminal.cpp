#include "platform/terminal.h"

#include <unistd.h>

namespace host {

bool stdinIsTerminal() {
    return ::isatty(STDIN_FILENO) == 1;
}
bool stdoutIsTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

}  // namespace host
