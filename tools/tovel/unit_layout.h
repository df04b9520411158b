#pragma once
// A working unit in a fresh unit root: the install folder with the default
// DSP images, the log folder, the registry (remote-command port 3445 and the
// KTX platform name) and the unit's two reset helper programs, as scripts
// that log what they would do. Whatever already exists is left as it is.
#include <string>
#include <vector>

namespace tovelcmd {

// What was created, one host path a line (for the start-up report).
struct LayoutResult {
    bool ok = true;
    std::string error;
    std::vector<std::string> created;
};

// Lays out the unit under the host's unit root (host::setUnitRoot first).
// `platformName` goes into a new registry as the platform's "Name".
LayoutResult layOutUnit(const std::string& platformName = "Kestrix Platform");

// The scripts that stand in for the reset helpers. Each appends one line to
// "reset-helpers.log" in the unit root and prints it.
std::string resetHelperScript(const std::string& program, const std::string& wouldDo);

}  // namespace tovelcmd
