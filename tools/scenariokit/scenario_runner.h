#pragma once
// Plays scenarios on the simulated hardware: puts their boards on the bus
// and runs their timelines. One thread of its own waits on the clock in
// force until the next event is due (a test's manual clock decides when),
// then hands the event to the simulated hardware's console, so an event does
// exactly what the same `tovelsim` command does.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/scenariokit/scenario.h"

namespace sim {
class SimDspBus;
}

namespace scenario {

// A board's settings from the file on a board already on the bus.
void applyBoardSettings(sim::SimDspBoard& board, const Board& settings);
// Plugs the board into its slot with its settings; false when the slot is taken.
bool attachBoard(sim::SimDspBus& bus, const Board& board, int slot);

class ScenarioRunner {
  public:
    using Console = std::function<std::string(const std::string& line)>;

    ScenarioRunner(std::shared_ptr<sim::SimDspBus> bus, Console console);
    ~ScenarioRunner();
    ScenarioRunner(const ScenarioRunner&) = delete;
    ScenarioRunner& operator=(const ScenarioRunner&) = delete;

    // Applies the scenario from now on: each [[board]] is attached to its
    // slot when the slot is empty (only if `attachMissing`, or if the file
    // wants its boards at start) or else gets the file's latency and replies;
    // the events are scheduled relative to now. Answers a console line
    // ("ok ..." or "error ...").
    std::string load(const Scenario& scenario);

    // "ok pending=N done=M; ..." with one entry per event: its time in its
    // file, its command, and when it is due or what it answered.
    std::string listEvents() const;

  private:
    struct Scheduled {
        DWORD dueTick;
        Event event;
        std::optional<Board> board;  // Attach only
        bool done = false;
        std::string answer;
    };

    void run();
    std::string fire(const Scheduled& entry);

    std::shared_ptr<sim::SimDspBus> bus_;
    Console console_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Scheduled> timeline_;  // in the order of loading
    bool dirty_ = false;               // the timeline changed while the thread waited
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace scenario
