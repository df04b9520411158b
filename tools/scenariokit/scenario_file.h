#pragma once
// Reads a scenario from TOML. Strict: an unknown key, a value of the wrong
// type or range, an unknown board kind or action is an error that names the
// file, line and column and what was expected ("a.toml:7:8: ...").
#include <optional>
#include <string>

#include "tools/scenariokit/scenario.h"

namespace scenario {

struct ParseResult {
    std::optional<Scenario> scenario;
    std::string error;  // "FILE:LINE:COLUMN: what was expected" when scenario is empty
};

ParseResult parseScenarioFile(const std::string& path);
// The same for text in memory; `name` stands for the file in messages.
ParseResult parseScenarioText(std::string_view text, const std::string& name);

}  // namespace scenario
