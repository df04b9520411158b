#include "tools/scenariokit/scenario_commands.h"

#include "sim/sim_console.h"
#include "tools/scenariokit/scenario_file.h"
#include "tools/scenariokit/scenario_runner.h"

namespace scenario {

void addScenarioCommands(sim::SimConsole& console, ScenarioRunner& runner) {
    console.addCommand("load", [&runner](const sim::SimConsole::Words& words) -> std::string {
        if (words.size() != 2) return "error usage: load FILE (one path without spaces)";
        const ParseResult parsed = parseScenarioFile(words[1]);
        if (!parsed.scenario) return "error " + parsed.error;
        return runner.load(*parsed.scenario);
    });
    console.addCommand("events", [&runner](const sim::SimConsole::Words& words) -> std::string {
        if (words.size() != 1) return "error usage: events";
        return runner.listEvents();
    });
}

}  // namespace scenario
