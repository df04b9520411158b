#include "sim/dsp_board.h"

#include <algorithm>
#include <cstring>

#include "boards/dsp_status.h"
#include "platform/clock.h"
#include "sim/firmware_table.h"
#include "sim/program_version.h"

namespace sim {
namespace {

// A frame larger than this never comes from the link (its buffers hold a
// 4-byte header plus the largest message); the USB chip refuses it.
constexpr DWORD kMaxTransferSize = wire::kMaxFrame + wire::kFrameHeader;
// Any device other than 1 marks a mixed-up status block or reply.
constexpr BYTE kMixedUpDevice = 2;

bool elapsed(DWORD since, DWORD ms) {
    return host::GetTickCount() - since >= ms;
}

}  // namespace

SimDspBoard::SimDspBoard(BoardSpec spec)
    : kind_(spec.kind),
      detail_(spec.detail),
      defaultVersion_(spec.defaultVersion),
      ackTimeMs_(spec.ackTimeMs),
      bootDelayMs_(spec.bootDelayMs),
      // A board that comes up running counts as freshly booted; one held in
      // reset shows 0 until a program starts.
      phase_(spec.startsRunning ? Phase::Running : Phase::Reset),
      sequence_(spec.startsRunning ? 1 : 0),
      version_(spec.defaultVersion) {}

// ---- Driver side --------------------------------------------------------

bool SimDspBoard::transfer(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                           DWORD* returned, DWORD& error, std::optional<StatusBlock>* lastRead) {
    DWORD latency = 0;
    {
        std::lock_guard lock(mutex_);
        if (!attached_) {
            error = ERROR_DEVICE_NOT_CONNECTED;
            return false;
        }
        latency = faults_.latencyMs;
    }
    if (latency) host::Sleep(latency);

    std::unique_lock lock(mutex_);
    if (!attached_) {  // unplugged while the transfer was on its way
        error = ERROR_DEVICE_NOT_CONNECTED;
        return false;
    }
    if (faults_.failTransfers > 0) {
        --faults_.failTransfers;
        error = faults_.failError;
        return false;
    }
    settle();
    auto* inBytes = static_cast<BYTE*>(in);
    switch (code) {
        case wire::IOCTL_DSP_GET_STATUS:
            if (!inBytes || inSize == 0) break;
            if (lastRead && *lastRead && latency == 0) {
                waitForStatusChange(lock, **lastRead);
                if (!attached_) {  // unplugged while the read waited
                    error = ERROR_DEVICE_NOT_CONNECTED;
                    return false;
                }
            }
            if (lastRead) *lastRead = buildStatusBlock();
            getStatus(inBytes, inSize, returned);
            return true;
        case wire::IOCTL_DSP_SEND_DATA: {
            // The frame travels in the output position; a frame offered only
            // in the input position is a caller that swapped the buffers.
            if ((!out && outSize) || (outSize == 0 && in && inSize) || outSize > kMaxTransferSize)
                break;
            takeFrame({static_cast<const BYTE*>(out), outSize});
            changed();
            if (returned) *returned = outSize;
            return true;
        }
        case wire::IOCTL_DSP_GET_DATA:
            if (!inBytes || inSize == 0) break;
            getData(inBytes, inSize, returned);
            changed();
            return true;
        default:
            error = ERROR_NOT_SUPPORTED;
            return false;
    }
    error = ERROR_INVALID_PARAMETER;
    return false;
}

void SimDspBoard::waitForStatusChange(std::unique_lock<std::mutex>& lock, const StatusBlock& seen) {
    using std::chrono::steady_clock;
    // Real time, whatever the host clock: the pace stands for the bus's own
    // cost, not for protocol time.
    const auto deadline = steady_clock::now() + statusReadPace_;
    // Changes that come with time (an ack window ending, a program starting)
    // are not announced, so the wait looks again at least this often.
    constexpr auto kSettleEvery = std::chrono::milliseconds(1);
    bool counted = false;
    for (;;) {
        settle();
        if (!attached_ || buildStatusBlock() != seen) return;
        const auto now = steady_clock::now();
        if (now >= deadline) return;
        if (!counted) {
            ++pacedStatusReads_;
            counted = true;
        }
        changed_.wait_until(lock, std::min(deadline, now + kSettleEvery));
    }
}

void SimDspBoard::getStatus(BYTE* buffer, DWORD size, DWORD* returned) {
    StatusBlock block = buildStatusBlock();
    if (faults_.mixUp == MixUp::StatusDevice && faults_.mixUpCount > 0) {
        block[wire::kStatusDeviceOffset] = kMixedUpDevice;
        if (--faults_.mixUpCount == 0) faults_.mixUp.reset();
    }
    // The controller reads 65 bytes, the link 64; only the block is written.
    const DWORD n = std::min<DWORD>(size, wire::kStatusBlockSize);
    std::memcpy(buffer, block.data(), n);
    if (returned) *returned = n;
}

void SimDspBoard::getData(BYTE* buffer, DWORD size, DWORD* returned) {
    // With nothing to fetch the chip answers an empty frame of device 0, which
    // a host reads as a mixed-up reply rather than waiting for ever.
    const bool hasReply = reply_.has_value();
    std::vector<BYTE> frame =
        hasReply ? std::move(*reply_) : std::vector<BYTE>(wire::kFrameHeader, 0);
    reply_.reset();
    if (hasReply && frame[0] == wire::kDeviceDsp) {
        if (outcome_ == dspResultReady) outcome_ = dspRunning;  // nothing left to fetch
        if (faults_.mixUp && faults_.mixUpCount > 0 && *faults_.mixUp != MixUp::StatusDevice) {
            if (*faults_.mixUp == MixUp::ReplyDevice)
                frame[0] = kMixedUpDevice;
            else
                frame[1] = static_cast<BYTE>(frame[1] + 1);
            if (--faults_.mixUpCount == 0) faults_.mixUp.reset();
        }
    }
    const DWORD n = std::min<DWORD>(size, static_cast<DWORD>(frame.size()));
    std::memcpy(buffer, frame.data(), n);
    if (returned) *returned = n;
}

void SimDspBoard::takeFrame(std::span<const BYTE> frame) {
    const std::size_t announced = announcedPayloadSize(frame);
    if (frame.size() < wire::kFrameHeader || frame.size() - wire::kFrameHeader < announced) {
        badUsbCommand_ = true;  // header cut short, or fewer bytes than announced
        return;
    }
    const BYTE device = frame[0];
    const BYTE opcode = frame[1];
    const auto payload = frame.subspan(wire::kFrameHeader, announced);
    badUsbCommand_ = false;
    switch (device) {
        case wire::kDeviceDsp:
            takeCommand(opcode, payload);
            break;
        case wire::kDeviceBootStart:
            resetDsp();
            break;
        case wire::kDeviceBootChunk:
            takeChunk(payload);
            break;
        case wire::kDeviceBootEnd:
            startProgram();
            break;
        case wire::kDeviceBoardDetail:
            takeBoardDetail(opcode, payload);
            break;
        default:
            badUsbCommand_ = true;
            break;
    }
}

void SimDspBoard::takeBoardDetail(BYTE opcode, std::span<const BYTE> payload) {
    if (opcode == wire::kBoardDetailRead) {
        const auto record = detail_.encode();
        reply_ = makeFrame(wire::kDeviceBoardDetail, wire::kBoardDetailRead, record);
    } else if (opcode == wire::kBoardDetailWrite && payload.size() >= BoardDetail::kSize) {
        std::array<BYTE, BoardDetail::kSize> record{};
        std::copy_n(payload.begin(), record.size(), record.begin());
        detail_ = BoardDetail::decode(record);
    } else {
        badUsbCommand_ = true;
    }
}

void SimDspBoard::takeChunk(std::span<const BYTE> payload) {
    if (payload.size() < 4) {
        badUsbCommand_ = true;
        return;
    }
    memory_.write(wire::readU32le(payload, 0), payload.subspan(4));
}

void SimDspBoard::resetDsp() {
    phase_ = Phase::Reset;
    sequence_ = 0;
    outcome_ = dspRunning;
    pending_.reset();
    reply_.reset();
    memory_.clear();
}

void SimDspBoard::startProgram() {
    ++bootCount_;
    version_ = defaultVersion_;
    if (memory_.isWritten(kVersionAddress, kVersionSize)) {
        const auto words = memory_.read(kVersionAddress, kVersionSize);
        version_ = {wire::readU16le(words, 0), wire::readU16le(words, 2)};
    }
    pending_.reset();
    reply_.reset();
    phase_ = Phase::Starting;
    startTick_ = host::GetTickCount();
    settle();
}

void SimDspBoard::takeCommand(BYTE opcode, std::span<const BYTE> payload) {
    if (phase_ != Phase::Running || faults_.frozen) {
        ++commandsIgnored_;
        return;
    }
    if (pending_) complete();  // a new command overtakes the one in progress
    reply_.reset();

    history_.push_back({opcode, {payload.begin(), payload.end()}});
    if (history_.size() > kHistorySize) history_.pop_front();
    ++commandCounts_[opcode];

    Pending next{dspCommandDone, {}, host::GetTickCount()};
    const auto rule = std::find_if(replyRules_.begin(), replyRules_.end(),
                                   [opcode](const ReplyRule& r) { return r.opcode == opcode; });
    if (rule != replyRules_.end() && rule->kind != ReplyRule::Kind::Delay) {
        next.finalState = dspResultReady;
        next.reply = makeFrame(wire::kDeviceDsp, rule->replyOpcode,
                               rule->kind == ReplyRule::Kind::Echo
                                   ? std::vector<BYTE>(payload.begin(), payload.end())
                                   : rule->data);
    } else if (const FirmwareCommand* command = findFirmwareCommand(kind_, opcode)) {
        switch (command->outcome) {
            case CommandOutcome::Done:
                break;
            case CommandOutcome::Reject:
                next.finalState = dspBadCommand;
                break;
            case CommandOutcome::Reply:
                next.finalState = dspResultReady;
                next.reply = makeFrame(wire::kDeviceDsp, command->replyOpcode,
                                       command->reply(ProgramContext{kind_, version_}, payload));
                break;
        }
    }
    if (rule != replyRules_.end() && rule->kind == ReplyRule::Kind::Delay)
        next.holdMs = rule->delayMs;
    pending_ = std::move(next);
    sequence_ = static_cast<BYTE>(sequence_ + (ackNumbering_ == AckNumbering::HalfStep ? 1 : 2));
    if (ackTimeMs_ == 0 && pending_->holdMs == 0) complete();
}

// Time-dependent progress: the program start after the boot delay, and the
// end of an acknowledgement window.
void SimDspBoard::settle() {
    if (phase_ == Phase::Starting && elapsed(startTick_, bootDelayMs_)) {
        phase_ = Phase::Running;
        sequence_ = 1;  // a freshly booted host link expects 3 next
        outcome_ = dspRunning;
    }
    if (pending_ && !faults_.frozen &&
        elapsed(pending_->since, std::max(ackTimeMs_, pending_->holdMs)))
        complete();
}

void SimDspBoard::complete() {
    if (ackNumbering_ == AckNumbering::HalfStep) sequence_ = static_cast<BYTE>(sequence_ + 1);
    outcome_ = pending_->finalState;
    if (!pending_->reply.empty()) reply_ = std::move(pending_->reply);
    pending_.reset();
}

BYTE SimDspBoard::stateNow() const {
    if (faults_.reportedState) return *faults_.reportedState;
    if (badUsbCommand_) return dspBadUsbCommand;
    if (phase_ != Phase::Running) return dspInReset;
    return pending_ ? static_cast<BYTE>(dspAck) : outcome_;
}

StatusBlock SimDspBoard::buildStatusBlock() const {
    StatusBlock block{};
    block[wire::kStatusDeviceOffset] = wire::kDeviceDsp;
    block[wire::kStatusOffset] = stateNow();
    std::copy(statusDetail_.begin(), statusDetail_.end(),
              block.begin() + wire::kStatusDetailOffset);
    block[wire::kSequenceOffset] = sequence_;
    return block;
}

// ---- Observation ----------------------------------------------------------

BoardDetail SimDspBoard::detail() const {
    std::lock_guard lock(mutex_);
    return detail_;
}

StatusBlock SimDspBoard::statusBlock() {
    std::lock_guard lock(mutex_);
    settle();
    StatusBlock block = buildStatusBlock();
    if (faults_.mixUp == MixUp::StatusDevice && faults_.mixUpCount > 0)
        block[wire::kStatusDeviceOffset] = kMixedUpDevice;
    return block;
}

BYTE SimDspBoard::state() {
    std::lock_guard lock(mutex_);
    settle();
    return stateNow();
}

BYTE SimDspBoard::sequence() {
    std::lock_guard lock(mutex_);
    settle();
    return sequence_;
}

bool SimDspBoard::programRunning() {
    std::lock_guard lock(mutex_);
    settle();
    return phase_ == Phase::Running;
}

ProgramVersion SimDspBoard::programVersion() {
    std::lock_guard lock(mutex_);
    return version_;
}

std::vector<BYTE> SimDspBoard::readMemory(std::uint32_t address, std::size_t size) const {
    std::lock_guard lock(mutex_);
    return memory_.read(address, size);
}

bool SimDspBoard::memoryWritten(std::uint32_t address, std::size_t size) const {
    std::lock_guard lock(mutex_);
    return memory_.isWritten(address, size);
}

std::size_t SimDspBoard::memoryPages() const {
    std::lock_guard lock(mutex_);
    return memory_.pageCount();
}

std::vector<ReceivedCommand> SimDspBoard::commandHistory() const {
    std::lock_guard lock(mutex_);
    return {history_.begin(), history_.end()};
}

unsigned SimDspBoard::commandCount(BYTE opcode) const {
    std::lock_guard lock(mutex_);
    return commandCounts_[opcode];
}

unsigned SimDspBoard::commandsIgnored() const {
    std::lock_guard lock(mutex_);
    return commandsIgnored_;
}

unsigned SimDspBoard::bootCount() const {
    std::lock_guard lock(mutex_);
    return bootCount_;
}

unsigned SimDspBoard::pacedStatusReads() const {
    std::lock_guard lock(mutex_);
    return pacedStatusReads_;
}

// ---- Settings -------------------------------------------------------------

void SimDspBoard::setAckTime(DWORD ms) {
    std::lock_guard lock(mutex_);
    ackTimeMs_ = ms;
    changed();
}

void SimDspBoard::setBootDelay(DWORD ms) {
    std::lock_guard lock(mutex_);
    bootDelayMs_ = ms;
    changed();
}

void SimDspBoard::setAckNumbering(AckNumbering numbering) {
    std::lock_guard lock(mutex_);
    ackNumbering_ = numbering;
    changed();
}

void SimDspBoard::setStatusDetail(std::span<const BYTE> bytes) {
    std::lock_guard lock(mutex_);
    statusDetail_.fill(0);
    std::copy_n(bytes.begin(), std::min(bytes.size(), statusDetail_.size()), statusDetail_.begin());
    changed();
}

void SimDspBoard::setStatusReadPace(std::chrono::microseconds pace) {
    std::lock_guard lock(mutex_);
    statusReadPace_ = pace;
    changed();
}

void SimDspBoard::setReplyRules(std::vector<ReplyRule> rules) {
    std::lock_guard lock(mutex_);
    replyRules_ = std::move(rules);
}

std::vector<ReplyRule> SimDspBoard::replyRules() const {
    std::lock_guard lock(mutex_);
    return replyRules_;
}

// ---- Faults ---------------------------------------------------------------

void SimDspBoard::failNextTransfers(unsigned count, DWORD error) {
    std::lock_guard lock(mutex_);
    faults_.failTransfers = count;
    faults_.failError = error;
    changed();
}

void SimDspBoard::reportState(BYTE state) {
    std::lock_guard lock(mutex_);
    faults_.reportedState = state;
    changed();
}

void SimDspBoard::clearReportedState() {
    std::lock_guard lock(mutex_);
    faults_.reportedState.reset();
    changed();
}

void SimDspBoard::freeze(bool frozen) {
    std::lock_guard lock(mutex_);
    if (!frozen && faults_.frozen && pending_) pending_->since = host::GetTickCount();
    faults_.frozen = frozen;
    changed();
}

void SimDspBoard::mixUp(MixUp how, unsigned count) {
    std::lock_guard lock(mutex_);
    faults_.mixUp = how;
    faults_.mixUpCount = count;
    if (count == 0) faults_.mixUp.reset();
    changed();
}

void SimDspBoard::setTransferLatency(DWORD ms) {
    std::lock_guard lock(mutex_);
    faults_.latencyMs = ms;
    changed();
}

void SimDspBoard::clearFaults() {
    std::lock_guard lock(mutex_);
    if (faults_.frozen && pending_) pending_->since = host::GetTickCount();
    faults_ = {};
    changed();
}

FaultSettings SimDspBoard::faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
}

// ---- Bus side -------------------------------------------------------------

bool SimDspBoard::attached() const {
    std::lock_guard lock(mutex_);
    return attached_;
}

void SimDspBoard::markDetached() {
    std::lock_guard lock(mutex_);
    attached_ = false;
    changed();
}

bool SimDspBoard::tryHold() {
    std::lock_guard lock(mutex_);
    if (!attached_ || held_) return false;
    held_ = true;
    return true;
}

void SimDspBoard::release() {
    std::lock_guard lock(mutex_);
    held_ = false;
}

bool SimDspBoard::held() const {
    std::lock_guard lock(mutex_);
    return held_;
}

}  // namespace sim
