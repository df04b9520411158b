#pragma once
// A program started and watched by the one that started it: tools and tests
// that run `tovel` as a child, wait for its exit code or stop it. (The unit's
// own code starts helpers with CreateProcessW and never waits for them.)
#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace host {

// This process's id, for names that parallel runs must not share.
int currentProcessId();

class ChildProcess {
  public:
    // Starts `program` (a host path) with `args`; stdout and stderr go to
    // `outputFile` when one is given, else they stay this process's own.
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::string& outputFile = {});
    // Kills the child if it still runs, and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // The child's process id (for measuring it), -1 if it did not start.
    int pid() const { return pid_; }
    // The exit code once the child has ended within `limit`, else nullopt.
    // A child ended by a signal answers 128 + the signal number, as shells do.
    std::optional<int> waitForExit(std::chrono::milliseconds limit);
    // Asks the child to end (SIGTERM), as a service manager stops a service.
    void terminate();

  private:
    int pid_ = -1;
    std::optional<int> exitCode_;
};

}  // namespace host
