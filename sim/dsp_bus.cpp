#include "sim/dsp_bus.h"

#include <atomic>
#include <optional>

namespace sim {
namespace {

// One open handle of "DSP1:": bound to its board until closed.
class BoardHandle final : public host::DeviceInstance {
  public:
    explicit BoardHandle(std::shared_ptr<SimDspBoard> board) : board_(std::move(board)) {}
    ~BoardHandle() override { close(); }

    bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                   DWORD& error) override {
        if (closed_) {
            error = ERROR_INVALID_HANDLE;
            return false;
        }
        return board_->transfer(code, in, inSize, out, outSize, returned, error, &lastStatus_);
    }

    void close() override {
        if (!closed_.exchange(true)) board_->release();
    }

  private:
    std::shared_ptr<SimDspBoard> board_;
    std::atomic<bool> closed_{false};
    // The last status block this handle read, for the board's paced reads;
    // touched only under the board's lock.
    std::optional<StatusBlock> lastStatus_;
};

bool validSlot(int slot) {
    return slot >= SimDspBus::kFirstSlot && slot <= SimDspBus::kLastSlot;
}

}  // namespace

SimDspBus::~SimDspBus() {
    // Handles still open must not keep talking to boards nobody owns.
    for (auto& board : slots_)
        if (board) board->markDetached();
}

std::shared_ptr<SimDspBoard> SimDspBus::attach(const BoardSpec& spec, int slot) {
    std::shared_ptr<SimDspBoard> board;
    {
        std::lock_guard lock(mutex_);
        if (slot == 0) {
            for (int s = kFirstSlot; s <= kLastSlot && slot == 0; ++s)
                if (!slots_[s]) slot = s;
        }
        if (!validSlot(slot) || slots_[slot]) return nullptr;
        board = std::make_shared<SimDspBoard>(spec);
        slots_[slot] = board;
    }
    announce(DBT_DEVICEARRIVAL);
    return board;
}

bool SimDspBus::unplug(int slot) {
    std::shared_ptr<SimDspBoard> board;
    {
        std::lock_guard lock(mutex_);
        if (!validSlot(slot) || !slots_[slot]) return false;
        board = std::move(slots_[slot]);
        slots_[slot].reset();
    }
    board->markDetached();
    return true;
}

bool SimDspBus::detach(int slot) {
    if (!unplug(slot)) return false;
    announce(DBT_DEVICEREMOVECOMPLETE);
    return true;
}

void SimDspBus::detachAll(bool raiseEvents) {
    for (int s = kFirstSlot; s <= kLastSlot; ++s) {
        if (raiseEvents)
            detach(s);
        else
            unplug(s);
    }
}

std::shared_ptr<SimDspBoard> SimDspBus::board(int slot) const {
    std::lock_guard lock(mutex_);
    return validSlot(slot) ? slots_[slot] : nullptr;
}

std::shared_ptr<SimDspBoard> SimDspBus::boardBySerial(std::uint32_t serial) const {
    std::lock_guard lock(mutex_);
    for (const auto& board : slots_)
        if (board && board->serial() == serial) return board;
    return nullptr;
}

int SimDspBus::slotOf(const SimDspBoard& board) const {
    std::lock_guard lock(mutex_);
    for (int s = kFirstSlot; s <= kLastSlot; ++s)
        if (slots_[s].get() == &board) return s;
    return 0;
}

std::vector<BoardInfo> SimDspBus::boards() const {
    std::array<std::shared_ptr<SimDspBoard>, kLastSlot + 1> slots;
    {
        std::lock_guard lock(mutex_);
        slots = slots_;
    }
    std::vector<BoardInfo> list;
    for (int s = kFirstSlot; s <= kLastSlot; ++s) {
        const auto& board = slots[s];
        if (!board) continue;
        BoardInfo info;
        info.slot = s;
        info.kind = board->kind();
        info.serial = board->serial();
        info.state = board->state();
        info.sequence = board->sequence();
        info.programRunning = board->programRunning();
        info.version = board->programVersion();
        info.held = board->held();
        list.push_back(info);
    }
    return list;
}

void SimDspBus::setAnnounceChanges(bool announce) {
    std::lock_guard lock(mutex_);
    announce_ = announce;
}

void SimDspBus::announce(DWORD event) {
    bool enabled;
    {
        std::lock_guard lock(mutex_);
        enabled = announce_;
    }
    // Outside the lock: the listener may enumerate, which opens "DSP1:".
    if (enabled) host::broadcastDeviceChange(event);
}

std::shared_ptr<host::DeviceInstance> SimDspBus::open(DWORD access, DWORD shareMode, DWORD& error) {
    (void)access, (void)shareMode;  // every handle may read and write its board
    std::lock_guard lock(mutex_);
    for (int s = kFirstSlot; s <= kLastSlot; ++s)
        if (slots_[s] && slots_[s]->tryHold()) return std::make_shared<BoardHandle>(slots_[s]);
    error = ERROR_DEVICE_NOT_CONNECTED;  // no board left to reach
    return nullptr;
}

std::shared_ptr<SimDspBus> installedDspBus() {
    return std::dynamic_pointer_cast<SimDspBus>(host::findStreamDriver(kDspDeviceName));
}

std::shared_ptr<SimDspBus> installDspBus(bool announceChanges) {
    uninstallDspBus();
    auto bus = std::make_shared<SimDspBus>(announceChanges);
    host::registerStreamDriver(kDspDeviceName, bus);
    return bus;
}

void uninstallDspBus() {
    if (auto bus = installedDspBus()) {
        bus->detachAll(/*raiseEvents=*/false);
        host::registerStreamDriver(kDspDeviceName, nullptr);
    }
}

}  // namespace sim
