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

#include "platform/win_types.h"

namespace sim {

class SimDspBus;
class DioBlock;
class Ls7366rCounter;

class SimConsole {
  public:
    // Any of the devices may be absent; their commands then answer an error.
    SimConsole(std::shared_ptr<SimDspBus> bus, std::shared_ptr<DioBlock> dio,
               std::shared_ptr<Ls7366rCounter> counter);

    // What the unit shows on its panel, supplied by the program that runs
    // the console (the simulated hardware cannot see it). Unset hooks make
    // their commands answer an error; without powerFailHandled, powerfail
    // raises the line without saying what the unit will do.
    struct PanelHooks {
        std::function<std::string()> leds;  // the answer of `leds`
        std::function<std::string()> cpu;   // the answer of `cpu`
        // Whether the unit's platform shuts down on a power fail (KTX only).
        std::function<bool()> powerFailHandled;
    };
    void setPanelHooks(PanelHooks hooks) { panel_ = std::move(hooks); }

    ~SimConsole();
    SimConsole(const SimConsole&) = delete;
    SimConsole& operator=(const SimConsole&) = delete;

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
    void publishKnobCount();
    std::string watchdog();
    std::string leds();
    std::string cpu();

    std::shared_ptr<SimDspBus> bus_;
    std::shared_ptr<DioBlock> dio_;
    std::shared_ptr<Ls7366rCounter> counter_;
    std::map<std::string, Handler> extensions_;
    PanelHooks panel_;
    HANDLE rotaryEvent_ = NULL_HANDLE;  // "RotaryEvent", made by the first turn
};

}  // namespace sim
