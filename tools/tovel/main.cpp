// tovel: the instrument's controller process on a host, with simulated DSP
// boards and watchdog hardware behind the host drivers.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/headless_display.h"
#include "app/headless_tovel_dlg.h"
#include "app/panel_readout.h"
#include "app/tovel_app.h"
#include "app/tovel_dlg.h"
#include "boards/usb_ctlr.h"
#include "device/platform_id.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/line_server.h"
#include "platform/process.h"
#include "platform/signals.h"
#include "platform/socket.h"
#include "platform/terminal.h"
#include "sim/dio_block.h"
#include "sim/dsp_bus.h"
#include "sim/sim_console.h"
#include "sim/spi_counter.h"
#include "sim/watchdog_hardware.h"
#include "sim/watchdog_linux_device.h"
#include "tools/tovel/start_options.h"
#include "tools/tovel/unit_layout.h"

namespace {

constexpr int kUsageExitCode = 2;
constexpr int kSetupExitCode = 1;
constexpr const char* kControlSocket = "sim.sock";  // in the unit root, where tovelsim looks

struct Options {
    std::string root = "./unit";
    std::string boards = "t1,rf,ip,pots";
    std::vector<std::string> portMaps;
    bool headless = false;
    std::string debugLog;
    std::string hwWatchdog;  // a Linux watchdog device behind the simulated one; empty: none
};

// The status display the operator closes to end the program: the status
// window when the program runs on a terminal, otherwise status lines on
// stdout. Either way the dialog's own work (CPU/LED and power-fail threads)
// runs. The window holds the debug output unless it goes to a file.
std::unique_ptr<StatusWindow> makeStatusWindow(bool headless, bool debugToFile, HANDLE closeEvent) {
    if (!headless && host::stdinIsTerminal() && host::stdoutIsTerminal() &&
        CTovelDlg::terminalUsable())
        return std::make_unique<CTovelDlg>(
            CTovelDlg::Options{.closeEvent = closeEvent, .holdDebugOutput = !debugToFile});
    return std::make_unique<HeadlessTovelDlg>(
        std::make_unique<HeadlessDisplay>(stdout, closeEvent));
}

int fail(int code, const std::string& message) {
    std::cerr << "tovel: " << message << "\n";
    return code;
}

int run(int argc, char** argv) {
    Options options;
    // The unit root of a shell that works with one unit (the front-panel
    // library and tovelsim look there too); --root overrides it.
    if (const char* root = std::getenv("TOVEL_ROOT"); root && *root) options.root = root;
    CLI::App cli{"Tovel: the test instrument's controller, with simulated DSP boards", "tovel"};
    cli.add_option("--root", options.root, "The unit's file system (created when new)")
        ->capture_default_str();
    cli.add_option("--boards", options.boards,
                   "Simulated boards: KIND[:SERIAL],... with KIND t1, rf, ip, ipg or pots; "
                   "none for no board")
        ->capture_default_str();
    cli.add_option("--port-map", options.portMaps,
                   "PORT=HOSTPORT: bind HOSTPORT when the program asks for PORT (repeatable)");
    cli.add_flag("--headless", options.headless, "No status window; status lines go to stdout");
    cli.add_option("--debug-log", options.debugLog, "Write the debug output to FILE");
    cli.add_flag("--hw-watchdog{/dev/watchdog}", options.hwWatchdog,
                 "Also drive a Linux watchdog device (default /dev/watchdog, or "
                 "--hw-watchdog=DEVICE), so the host really resets when the unit would");
    try {
        cli.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return cli.exit(e);
    } catch (const CLI::ParseError& e) {
        cli.exit(e);
        return kUsageExitCode;
    }

    // Every argument is checked before anything starts.
    std::string error;
    const auto boards = tovelcmd::parseBoardList(options.boards, error);
    if (!boards) return fail(kUsageExitCode, "--boards: " + error);
    std::vector<tovelcmd::PortMapping> portMaps;
    for (const std::string& text : options.portMaps) {
        const auto mapping = tovelcmd::parsePortMapping(text, error);
        if (!mapping) return fail(kUsageExitCode, "--port-map: " + error);
        portMaps.push_back(*mapping);
    }

    // Chosen before the watchdog hardware exists: arming it opens the device.
    if (!options.hwWatchdog.empty() && !sim::useLinuxWatchdogDevice(options.hwWatchdog))
        return fail(kUsageExitCode, "--hw-watchdog: cannot write " + options.hwWatchdog);

    host::setUnitRoot(options.root);
    const auto layout = tovelcmd::layOutUnit();
    if (!layout.ok) return fail(kSetupExitCode, layout.error);
    for (const std::string& created : layout.created)
        std::cout << "tovel: created " << created << "\n";
    if (!options.debugLog.empty() && !host::setDebugFile(options.debugLog))
        return fail(kSetupExitCode, "cannot open the debug log " + options.debugLog);
    for (const auto& mapping : portMaps) host::setPortMap(mapping.programPort, mapping.hostPort);

    // Before any thread starts, so that every thread inherits the handlers.
    const HANDLE stopEvent = host::stopSignalEvent();
    if (stopEvent == NULL_HANDLE) return fail(kSetupExitCode, "cannot install the signal handlers");

    // The simulated hardware lives as long as the process.
    sim::WatchdogHardware watchdog;
    auto bus = sim::installDspBus(/*announceChanges=*/false);
    for (const auto& choice : *boards) {
        sim::BoardSpec spec = sim::defaultBoardSpec(choice.kind);
        spec.detail.serial = choice.serial;
        if (!bus->attach(spec)) return fail(kSetupExitCode, "cannot attach the boards");
    }
    UsbCtlr::ConnectDeviceChangeSources();
    // Boards plugged in from now on are announced like on the unit.
    bus->setAnnounceChanges(true);
    auto dio = sim::installDioBlock();
    auto knobCounter = sim::installSpiCounter();

    // The simulated hardware's control channel (tovelsim); the unit runs
    // without it if the socket cannot be made. It belongs to the simulated
    // hardware: a unit on real drivers has nothing here to drive.
    sim::SimConsole console(bus, dio, knobCounter);
    console.setPanelHooks({.leds = &ledsReport, .cpu = &cpuReport, .powerFailHandled = [] {
                               return getPlatform() == PlatformKtx;
                           }});
    host::LineServer control;
    std::string controlError;
    if (!control.start(
            options.root + "/" + kControlSocket,
            [&console](const std::string& line) { return console.execute(line); }, controlError))
        std::cerr << "tovel: no control channel: " << controlError << "\n";

    CTovelApp app(
        [&] { return makeStatusWindow(options.headless, !options.debugLog.empty(), stopEvent); });
    const int code = app.run();
    control.stop();
    // The controller's other threads are not joined; the process ends here
    // with them, as it did on the unit.
    host::ExitProcess(code);
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv);
}
