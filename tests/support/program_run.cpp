#include "tests/support/program_run.h"

#include <chrono>
#include <filesystem>

#include "platform/child_process.h"
#include "tests/support/test_support.h"

namespace testing_support {

ProgramRun runProgram(const std::string& program, const std::vector<std::string>& args) {
    // Each test case runs in a process of its own: the process id keeps
    // parallel runs apart.
    static int runs = 0;
    const auto out = std::filesystem::temp_directory_path() /
                     ("tovel-run-" + std::to_string(host::currentProcessId()) + "-" +
                      std::to_string(++runs) + ".out");
    ProgramRun run;
    {
        host::ChildProcess child(std::string(TOVEL_BUILD_DIR) + "/" + program, args, out.string());
        run.exitCode = child.waitForExit(std::chrono::seconds(30)).value_or(-1);
    }
    run.output = fileText(out.string());
    std::filesystem::remove(out);
    return run;
}

}  // namespace testing_support
