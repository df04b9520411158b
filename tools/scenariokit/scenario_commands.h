#pragma once
// The scenario commands of the simulated hardware's console (tovelsim):
//   load FILE   apply a scenario file's boards, replies and events from now on
//   events      the scheduled events, pending and done
namespace sim {
class SimConsole;
}

namespace scenario {

class ScenarioRunner;

void addScenarioCommands(sim::SimConsole& console, ScenarioRunner& runner);

}  // namespace scenario
