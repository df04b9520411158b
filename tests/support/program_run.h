#pragma once
// Running one of the tree's programs from a test, as people run it.
#include <string>
#include <vector>

namespace testing_support {

struct ProgramRun {
    int exitCode = -1;   // -1 when it did not end within half a minute
    std::string output;  // stdout and stderr as one text
};

// Runs `program` of the build folder with `args` to its end.
ProgramRun runProgram(const std::string& program, const std::vector<std::string>& args);

}  // namespace testing_support
