#pragma once
// Whether the program talks to a person at a terminal, so tools can choose
// between a screen (window, progress bar) and plain lines.
namespace host {

bool stdinIsTerminal();
bool stdoutIsTerminal();

}  // namespace host
