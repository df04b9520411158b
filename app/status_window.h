#pragma once
// The operator's status display as the application runs it: it shows the
// latest status line and runs modally on the main thread until the operator
// closes it. The headless display prints each status line; a window display
// can take its place behind the same interface.
#include "app/message_channels.h"

class StatusWindow : public StatusDisplay {
  public:
    // Runs the display on the calling thread until the operator closes it.
    virtual void runModal() = 0;
};
