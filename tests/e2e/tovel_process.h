#pragma once
// The tovel program as a child process of a test: started with arguments,
// its output kept in a file, signalled, waited for with a time limit.
#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

class TovelProcess {
  public:
    // Starts TOVEL_BUILD_DIR/tovel with `args`; stdout and stderr go to `outputFile`.
    TovelProcess(const std::vector<std::string>& args, const std::string& outputFile);
    // Kills the process if it still runs.
    ~TovelProcess();
    TovelProcess(const TovelProcess&) = delete;
    TovelProcess& operator=(const TovelProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // The exit code once the process has ended within `limit`, else nullopt.
    // A process ended by a signal answers 128 + the signal number.
    std::optional<int> waitForExit(std::chrono::milliseconds limit);
    // SIGTERM, as a service manager stops it.
    void terminate();

  private:
    int pid_ = -1;
    std::optional<int> exitCode_;
};

}  // namespace e2e
