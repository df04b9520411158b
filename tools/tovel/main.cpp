// tovel: the instrument's controller process on a host, with simulated DSP
// boards and watchdog hardware behind the host drivers.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/headless_display.h"
#include "app/headless_tovel_dlg.h"
#include "app/message_channels.h"
#include "app/panel_readout.h"
#include "app/tovel_app.h"
#include "app/tovel_dlg.h"
#include "boards/usb_ctlr.h"
#include "device/platform_id.h"
#include "platform/allocator.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/line_server.h"
#include "platform/process.h"
#include "platform/rapi_util.h"
#include "platform/root_lock.h"
#include "platform/signals.h"
#include "platform/socket.h"
#include "platform/terminal.h"
#include "sim/dio_block.h"
#include "sim/dsp_bus.h"
#include "sim/sim_console.h"
#include "sim/spi_counter.h"
#include "sim/watchdog_hardware.h"
#include "sim/watchdog_linux_device.h"
#include "tools/scenariokit/scenario_commands.h"
#include "tools/scenariokit/scenario_file.h"
#include "tools/scenariokit/scenario_runner.h"
#include "tools/tovel/start_options.h"
#include "tools/tovel/unit_layout.h"
#include "tools/tracekit/trace_file.h"

namespace {

constexpr int kUsageExitCode = 2;
constexpr int kSetupExitCode = 1;
constexpr int kRootInUseExitCode = 3;               // another running unit holds the root
constexpr const char* kControlSocket = "sim.sock";  // in the unit root, where tovelsim looks

struct Options {
    std::string root = "./unit";
    std::string boards = "t1,rf,ip,pots";
    std::vector<std::string> portMaps;
    bool headless = false;
    std::string debugLog;
    std::string hwWatchdog;  // a Linux watchdog device behind the simulated one; empty: none
    std::string scenario;    // a scenario file instead of --boards
    std::string trace;       // the request trace file; empty: none
    unsigned traceMaxMb = 64;
};

bool useStatusWindow(bool headless) {
    return !headless && host::stdinIsTerminal() && host::stdoutIsTerminal() &&
           CTovelDlg::terminalUsable();
}

// The status display the operator closes to end the program: the status
// window when the program runs on a terminal, otherwise status lines on
// stdout. Either way the dialog's own work (CPU/LED and power-fail threads)
// runs. The window holds the debug output unless it goes to a file.
std::unique_ptr<StatusWindow> makeStatusWindow(bool headless, bool debugToFile, HANDLE closeEvent) {
    if (useStatusWindow(headless))
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
    auto* boardsOption =
        cli.add_option("--boards", options.boards,
                       "Simulated boards: KIND[:SERIAL],... with KIND t1, rf, ip, ipg or pots; "
                       "none for no board")
            ->capture_default_str();
    cli.add_option("--scenario", options.scenario,
                   "A scenario file (TOML): the boards, their replies and a timeline of events")
        ->excludes(boardsOption);
    cli.add_option("--trace", options.trace,
                   "Write every request and reply of every session to FILE (JSON lines)");
    cli.add_option("--trace-max-mb", options.traceMaxMb,
                   "Rotate the trace to FILE.old above this many MiB")
        ->capture_default_str()
        ->check(CLI::Range(1u, 4096u));
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
    std::optional<scenario::Scenario> scenarioFile;
    if (!options.scenario.empty()) {
        auto parsed = scenario::parseScenarioFile(options.scenario);
        if (!parsed.scenario) return fail(kUsageExitCode, "--scenario: " + parsed.error);
        scenarioFile = std::move(parsed.scenario);
    }
    std::vector<tovelcmd::PortMapping> portMaps;
    for (const std::string& text : options.portMaps) {
        const auto mapping = tovelcmd::parsePortMapping(text, error);
        if (!mapping) return fail(kUsageExitCode, "--port-map: " + error);
        portMaps.push_back(*mapping);
    }

    // One unit per root, settled before anything in the root (or a watchdog
    // device) is touched; the lock lasts as long as the process.
    bool rootInUse = false;
    const auto rootLock = host::RootLock::acquire(options.root, error, rootInUse);
    if (!rootLock) return fail(rootInUse ? kRootInUseExitCode : kSetupExitCode, error);

    // Chosen before the watchdog hardware exists: arming it opens the device.
    if (!options.hwWatchdog.empty() && !sim::useLinuxWatchdogDevice(options.hwWatchdog, &error))
        return fail(kUsageExitCode, "--hw-watchdog: " + error);

    host::setUnitRoot(options.root);
    const auto layout =
        scenarioFile ? tovelcmd::layOutUnit(scenarioFile->platform) : tovelcmd::layOutUnit();
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
    if (scenarioFile && scenarioFile->boardsAtStart) {
        for (std::size_t i = 0; i < scenarioFile->boards.size(); ++i)
            if (!scenario::attachBoard(*bus, scenarioFile->boards[i], static_cast<int>(i) + 1))
                return fail(kSetupExitCode, "cannot attach the boards");
    }
    for (const auto& choice : scenarioFile ? std::vector<tovelcmd::BoardChoice>{} : *boards) {
        sim::BoardSpec spec = sim::defaultBoardSpec(choice.kind);
        spec.detail.serial = choice.serial;
        if (!bus->attach(spec)) return fail(kSetupExitCode, "cannot attach the boards");
    }
    UsbCtlr::ConnectDeviceChangeSources();
    // Boards plugged in from now on are announced like on the unit.
    bus->setAnnounceChanges(true);
    // The platform library that RemCtl_CmdLineControl calls.
    host::installRapiUtilStandIn();
    auto dio = sim::installDioBlock();
    auto knobCounter = sim::installSpiCounter();

    // The simulated hardware's control channel (tovelsim); the unit runs
    // without it if the socket cannot be made. It belongs to the simulated
    // hardware: a unit on real drivers has nothing here to drive.
    sim::SimConsole console(bus, dio, knobCounter);
    scenario::ScenarioRunner scenarios(
        bus, [&console](const std::string& line) { return console.execute(line); });
    scenario::addScenarioCommands(console, scenarios);
    console.setPanelHooks({.leds = &ledsReport, .cpu = &cpuReport, .powerFailHandled = [] {
                               return getPlatform() == PlatformKtx;
                           }});
    host::LineServer control;
    std::string controlError;
    if (!control.start(
            options.root + "/" + kControlSocket,
            [&console](const std::string& line) { return console.execute(line); }, controlError))
        std::cerr << "tovel: no control channel: " << controlError << "\n";

    // Without a window, status lines that come before the display is up
    // (the first enumeration's "No Boards found!!!") reach stdout too.
    std::optional<HeadlessDisplay> earlyLines;
    if (!useStatusWindow(options.headless)) {
        earlyLines.emplace(stdout, NULL_HANDLE);
        setStatusDisplay(&*earlyLines);
    }
    std::shared_ptr<tracekit::TraceFile> trace;
    if (!options.trace.empty()) {
        trace = std::make_shared<tracekit::TraceFile>(
            options.trace, std::uint64_t{options.traceMaxMb} << 20, [bus](std::uint32_t serial) {
                const auto board = bus->boardBySerial(serial);
                return board ? bus->slotOf(*board) : 0;
            });
        if (!trace->isOpen())
            return fail(kSetupExitCode, "cannot write the trace " + options.trace);
        setRequestTrace(trace);
    }
    // The platform is settled here, before any thread asks: a caller that
    // asks while the first answer is being read is told "unreadable", and the
    // dialog would then start no power-fail thread on a KTX unit.
    getPlatform();
    // The scenario's timeline starts now.
    if (scenarioFile) std::cout << "tovel: " << scenarios.load(*scenarioFile) << "\n";
    CTovelApp app(
        [&] { return makeStatusWindow(options.headless, !options.debugLog.empty(), stopEvent); });
    const int code = app.run();
    control.stop();
    if (trace) trace->flush();  // the lines of the sessions that ended
    // The controller's other threads are not joined; the process ends here
    // with them, as it did on the unit.
    host::ExitProcess(code);
}

}  // namespace

int main(int argc, char** argv) {
    host::useOneAllocatorArena();
    // Line by line also into a file or pipe, so that whoever watches the
    // output sees each line when it happens.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    return run(argc, argv);
}
