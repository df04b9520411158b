#include "app/panel_readout.h"

#include <mutex>
#include <sstream>

#include "app/dialog_core.h"
#include "device/dual_led_blinker.h"
#include "device/led_blinker.h"
#include "device/platform_id.h"

namespace {

std::mutex& panelMutex() {
    static std::mutex m;
    return m;
}
const DialogCore* panel = nullptr;  // under panelMutex()

enum class LineMode { Off, On, Blink };

const char* modeName(LineMode mode) {
    switch (mode) {
        case LineMode::On:
            return "on";
        case LineMode::Blink:
            return "blink";
        default:
            return "off";
    }
}

// Lines A and B of the front-panel LED in each of its blinker's modes.
LineMode dualMode(int mode, bool lineB) {
    static constexpr LineMode kModes[][2] = {
        {LineMode::Off, LineMode::Off},     {LineMode::On, LineMode::Off},
        {LineMode::Off, LineMode::On},      {LineMode::On, LineMode::On},
        {LineMode::Blink, LineMode::Off},   {LineMode::Blink, LineMode::On},
        {LineMode::Off, LineMode::Blink},   {LineMode::On, LineMode::Blink},
        {LineMode::Blink, LineMode::Blink}, {LineMode::Blink, LineMode::Blink}};
    if (mode < 0 || mode > DualLedBlinker::kHighestMode) return LineMode::Off;
    return kModes[mode][lineB ? 1 : 0];
}

void describe(std::ostream& out, const char* name, LineMode mode, int line, bool lit, DWORD onMs,
              DWORD offMs) {
    out << name << "=" << modeName(mode) << " line=" << line << " lit=" << (lit ? "yes" : "no");
    if (mode == LineMode::Blink) out << " on_ms=" << onMs << " off_ms=" << offMs;
}

}  // namespace

void registerPanel(const DialogCore* dialog) {
    std::lock_guard<std::mutex> lock(panelMutex());
    panel = dialog;
}

void unregisterPanel(const DialogCore* dialog) {
    std::lock_guard<std::mutex> lock(panelMutex());
    if (panel == dialog) panel = nullptr;
}

std::string ledsReport() {
    std::lock_guard<std::mutex> lock(panelMutex());
    if (!panel) return "error no status dialog";
    const LedBlinker* green = panel->greenBlinker();
    const DualLedBlinker* front = panel->frontPanelBlinker();
    if (!green && !front) return "error the LEDs are not set up yet";
    // The lines the CPU/LED thread chose for this platform.
    const DialogCore::LedLayout layout =
        getPlatform() == PlatformVbq ? DialogCore::kVbqLeds : DialogCore::kKtxLeds;
    const LedStates lit = panel->ledStates();
    std::ostringstream out;
    out << "ok ";
    if (green) {
        const int mode = green->mode();
        const LineMode m = mode == LedBlinker::ModeOn      ? LineMode::On
                           : mode == LedBlinker::ModeBlink ? LineMode::Blink
                                                           : LineMode::Off;
        describe(out, "green", m, layout.green, lit.green, green->onTime(), green->offTime());
    } else {
        out << "green=none";
    }
    if (front) {
        const int mode = front->mode();
        out << "; ";
        describe(out, "front_a", dualMode(mode, false), layout.frontA, lit.frontA, front->onTime(),
                 front->offTime());
        out << "; ";
        describe(out, "front_b", dualMode(mode, true), layout.frontB, lit.frontB, front->onTime(),
                 front->offTime());
    } else {
        out << "; front_a=none; front_b=none";
    }
    return out.str();
}

std::string cpuReport() {
    std::lock_guard<std::mutex> lock(panelMutex());
    if (!panel) return "error no status dialog";
    return "ok cpu=" + std::to_string(panel->cpuUsage());
}
