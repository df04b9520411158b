#pragma once
// The three reporting channels that the sessions, the server controller and
// the application use, picked by the audience of a message:
//   statusMessage - what the operator should see (status line, log, debug output)
//   debugMessage  - routine progress ("DEBUG: " prefix; log and debug output)
//   traceAndLog   - supervision and trace lines (log and debug output)
// None of them adds a line end. Callable from any thread.
#include <string>

// Receives the status texts for the operator's status line. The status dialog
// implements it; StatusMsg runs in the reporting thread, so it must only store
// the text and hand it to the display's own thread.
class StatusDisplay {
  public:
    virtual ~StatusDisplay() = default;
    virtual void StatusMsg(std::wstring text) = 0;
};

// Registers the display that statusMessage hands its texts to; nullptr
// unregisters it. When this returns, the previous display is no longer being
// called and will not be called again, so it may be destroyed. Must not be
// called while holding a lock that StatusMsg takes.
void setStatusDisplay(StatusDisplay* display);

// Writes the first 511 characters to the debug output and the whole text to
// the event log.
void traceAndLog(std::wstring text);
// traceAndLog, then a copy to the status display if one is registered.
void statusMessage(std::wstring text);
// traceAndLog of "DEBUG: " followed by the text; never shown on the status line.
void debugMessage(std::wstring text);
