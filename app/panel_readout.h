#pragma once
// The status dialog's panel as text, for a unit without a screen: the
// simulated unit's control channel answers `tovelsim leds` and `tovelsim cpu`
// with these. The dialog registers itself for as long as it exists.
#include <string>

class DialogCore;

void registerPanel(const DialogCore* dialog);
// Waits for a report that reads the dialog to finish.
void unregisterPanel(const DialogCore* dialog);

// "ok green=MODE line=N lit=yes|no [on_ms=N off_ms=N]; front_a=...; front_b=..."
// with MODE off, on or blink; "error ..." without a dialog or before the
// CPU/LED thread has set the LEDs up.
std::string ledsReport();
// "ok cpu=N" with the load the "%CPU Usage" bar shows (0..100).
std::string cpuReport();
