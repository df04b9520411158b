#pragma once
// The commands by which a person or a test drives the simulated unit while
// it runs: hot-plug boards, inject DSP faults, fail the power, turn the knob,
// look at the watchdog. One command line in, one answer line out:
// "ok ..." or "error <reason>". Nothing a client sends can crash the unit.
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim {

class SimDspBus;
class DioBlock;
class Ls7366rCounter;

class SimConsole {
  public:
    // Any of the devices may be absent; their commands then answer an error.
    SimConsole(std::shared_ptr<SimDspBus> bus, std::shared_ptr<DioBlock> dio,
               std::shared_ptr<Ls7366rCounter> counter);

    std::string execute(const std::string& line);

    // A command of another module (scenario files), answered by `handler`
    // with the line's words. Add them before the console serves anyone.
    using Words = std::vector<std::string>;
    using Handler = std::function<std::string(const Words& words)>;
    void addCommand(const std::string& name, Handler handler);

  private:
    std::string boards();
    std::string attach(const Words& words);
    std::string detach(const Words& words);
    std::string fault(const Words& words);
    std::string powerFail();
    std::string knob(const Words& words);
    std::string watchdog();

    std::shared_ptr<SimDspBus> bus_;
    std::shared_ptr<DioBlock> dio_;
    std::shared_ptr<Ls7366rCounter> counter_;
    std::map<std::string, Handler> extensions_;
};

}  // namespace sim
