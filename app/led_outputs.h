#pragma once
// The unit's LED lines: each is one process-wide digital output of the
// digital-I/O driver, made on first use for its line (active-high) and
// registered with the driver at that line.
#include <memory>

#include "device/led_line.h"

class DigitalOutput;

// The output at `line` (0..31), made on first use; null for another line.
// It lives until the process ends, as the blinkers that drive it may.
DigitalOutput* ledOutput(int line);

// An LED line over ledOutput(line); null for a line outside 0..31.
std::unique_ptr<LedLine> makeLedLine(int line);
