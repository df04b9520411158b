// tovelsim: drives the simulated hardware of a running `tovel` through the
// control channel in its unit root (<root>/sim.sock).
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "platform/line_server.h"

namespace {

constexpr const char* kCommands = R"(Commands:
  boards                       attached simulated boards: slot, kind, serial, DSP state,
                               sequence number, program version, whether a handle holds it
  attach KIND[:SERIAL]         plug in a board (t1, rf, ip, ipg, pots)
  detach SLOT                  pull the board in SLOT
  fault SLOT fail CODE COUNT   fail the next COUNT transfers with system error CODE
  fault SLOT state CODE        make the status block show state CODE
  fault SLOT hang              hang the DSP (its sequence number stops)
  fault SLOT mixup             the next reply carries a wrong opcode
  fault SLOT latency MS        every transfer takes MS milliseconds
  fault SLOT clear             remove the board's faults
  powerfail                    raise the power-fail line (17) of DIO1:
  knob DELTA                   turn the front-panel knob by DELTA counts
  watchdog                     the watchdog: armed, interval, time since the last service
  load FILE                    apply a scenario file's boards, replies and events from now on
  events                       the scenario events, pending and done, with their times
  leds                         each LED: mode, output line, lit now, blink on/off times
  cpu                          the load figure that the status window's bar shows)";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Drive the simulated hardware of a running Tovel unit."};
    app.footer(kCommands);
    // As for tovel: TOVEL_ROOT, else ./unit; --root overrides both.
    const char* fromEnvironment = std::getenv("TOVEL_ROOT");
    std::string root = fromEnvironment && *fromEnvironment ? fromEnvironment : "unit";
    std::vector<std::string> command;
    app.add_option("--root", root, "the unit root folder that tovel runs on")
        ->capture_default_str();
    app.add_option("command", command, "the command and its arguments")->required();
    app.allow_extras(false);
    app.prefix_command(false);
    app.positionals_at_end(true);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    // The unit reads the file itself, from its own working folder.
    if (command.size() == 2 && command[0] == "load")
        command[1] = std::filesystem::absolute(command[1]).string();
    std::string line;
    for (const auto& word : command) line += (line.empty() ? "" : " ") + word;

    std::string reply, error;
    if (!host::lineRequest(root + "/sim.sock", line, reply, error)) {
        std::cerr << "tovelsim: cannot reach the unit: " << error << " (is tovel running on --root "
                  << root << "?)\n";
        return 2;
    }
    if ((line == "boards" || line == "events") && reply.rfind("ok", 0) == 0) {
        // One board per line for people.
        std::size_t start = 0, end;
        while ((end = reply.find("; ", start)) != std::string::npos) {
            std::cout << reply.substr(start, end - start) << "\n";
            start = end + 2;
        }
        std::cout << reply.substr(start) << "\n";
    } else {
        std::cout << reply << "\n";
    }
    return reply.rfind("ok", 0) == 0 ? 0 : 1;
}
