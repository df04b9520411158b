#include "tools/scenariokit/scenario_runner.h"

#include <algorithm>
#include <sstream>

#include "platform/clock.h"
#include "sim/dsp_bus.h"

namespace scenario {
namespace {

// Ticks wrap after 49 days; a due tick is compared as a signed distance.
std::int32_t ticksUntil(DWORD due, DWORD now) {
    return static_cast<std::int32_t>(due - now);
}

}  // namespace

void applyBoardSettings(sim::SimDspBoard& board, const Board& settings) {
    board.setTransferLatency(settings.latencyMs);
    board.setReplyRules(settings.replies);
}

bool attachBoard(sim::SimDspBus& bus, const Board& board, int slot) {
    sim::BoardSpec spec = sim::defaultBoardSpec(board.kind);
    spec.detail.serial = board.serial;
    const auto attached = bus.attach(spec, slot);
    if (!attached) return false;
    applyBoardSettings(*attached, board);
    return true;
}

ScenarioRunner::ScenarioRunner(std::shared_ptr<sim::SimDspBus> bus, Console console)
    : bus_(std::move(bus)), console_(std::move(console)) {}

ScenarioRunner::~ScenarioRunner() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::string ScenarioRunner::load(const Scenario& scenario) {
    if (!bus_) return "error no simulated DSP boards";
    std::vector<int> attached;
    for (std::size_t i = 0; i < scenario.boards.size(); ++i) {
        const int slot = static_cast<int>(i) + 1;
        const Board& board = scenario.boards[i];
        if (const auto present = bus_->board(slot)) {
            applyBoardSettings(*present, board);
        } else if (scenario.boardsAtStart) {
            if (!attachBoard(*bus_, board, slot))
                return "error cannot attach the board of slot " + std::to_string(slot);
            attached.push_back(slot);
        }
    }
    const DWORD start = host::GetTickCount();
    {
        std::lock_guard lock(mutex_);
        for (const Event& event : scenario.events) {
            Scheduled entry{start + event.atMs, event, std::nullopt, false, {}};
            if (event.action == Action::Attach) entry.board = scenario.boards[event.slot - 1];
            timeline_.push_back(std::move(entry));
        }
        dirty_ = true;
        if (!thread_.joinable() && !scenario.events.empty())
            thread_ = std::thread([this] { run(); });
    }
    changed_.notify_all();
    std::ostringstream out;
    out << "ok loaded " << scenario.file << ": " << scenario.boards.size() << " boards ("
        << attached.size() << " attached), " << scenario.events.size() << " events";
    return out.str();
}

std::string ScenarioRunner::fire(const Scheduled& entry) {
    if (entry.event.action != Action::Attach) return console_(entry.event.command);
    if (!bus_ || !attachBoard(*bus_, *entry.board, entry.event.slot))
        return "error slot " + std::to_string(entry.event.slot) + " is taken";
    return "ok slot=" + std::to_string(entry.event.slot);
}

void ScenarioRunner::run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
        auto next = timeline_.end();
        for (auto it = timeline_.begin(); it != timeline_.end(); ++it)
            if (!it->done &&
                (next == timeline_.end() || ticksUntil(it->dueTick, next->dueTick) < 0))
                next = it;
        dirty_ = false;
        const auto wake = [this] { return stop_ || dirty_; };
        if (next == timeline_.end()) {
            host::clock().waitFor(changed_, lock, INFINITE, wake);
            continue;
        }
        const std::int32_t left = ticksUntil(next->dueTick, host::GetTickCount());
        if (left > 0) {
            host::clock().waitFor(changed_, lock, static_cast<DWORD>(left), wake);
            continue;
        }
        next->done = true;
        const Scheduled entry = *next;
        const std::size_t index = static_cast<std::size_t>(next - timeline_.begin());
        lock.unlock();  // the console takes the hardware's own locks
        std::string answer = fire(entry);
        lock.lock();
        timeline_[index].answer = std::move(answer);
    }
}

std::string ScenarioRunner::listEvents() const {
    std::lock_guard lock(mutex_);
    const DWORD now = host::GetTickCount();
    const auto pending = std::count_if(timeline_.begin(), timeline_.end(),
                                       [](const Scheduled& s) { return !s.done; });
    std::ostringstream out;
    out << "ok pending=" << pending << " done=" << timeline_.size() - pending;
    for (const Scheduled& s : timeline_) {
        out << "; at_ms=" << s.event.atMs << " " << s.event.command << ": ";
        if (!s.done)
            out << "pending, due in " << std::max<std::int32_t>(0, ticksUntil(s.dueTick, now))
                << " ms";
        else if (s.answer.empty())
            out << "running";
        else
            out << "done " << (ticksUntil(now, s.dueTick)) << " ms ago (" << s.answer << ")";
    }
    return out.str();
}

}  // namespace scenario
