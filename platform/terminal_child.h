#pragma once
// A program run on a pseudo-terminal of its own, as if a person had started
// it in a terminal window: what it draws is read back, keys are typed to it.
// Tools and tests use it to drive full-screen programs.
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace host {

class TerminalChild {
  public:
    // Starts `program` with `args` on a new terminal of `rows` x `cols`, with
    // the extra environment `env` (name, value) set for it.
    TerminalChild(const std::string& program, const std::vector<std::string>& args, int rows,
                  int cols, const std::vector<std::pair<std::string, std::string>>& env = {});
    // Kills the program if it still runs, reaps it and closes the terminal.
    ~TerminalChild();
    TerminalChild(const TerminalChild&) = delete;
    TerminalChild& operator=(const TerminalChild&) = delete;

    bool started() const { return pid_ > 0 && master_ >= 0; }
    // What the program wrote, waiting up to `waitMs` for the first byte; empty
    // when nothing came.
    std::string read(int waitMs);
    void type(const std::string& keys);
    // The exit code once the program has ended, else nullopt; never waits.
    std::optional<int> exitCode();

  private:
    int master_ = -1;
    int pid_ = -1;
    std::optional<int> exitCode_;
};

}  // namespace host
