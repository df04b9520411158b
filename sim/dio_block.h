#pragma once
// A simulated 32-line digital I/O block behind the stream driver "DIO1:".
// Each line is an input (its level is set from outside, by a test or a
// person) or an output (its level is what the program last wrote). Reads
// answer the level of every line; an armed input line reports its edges by
// setting the named event "DIOInt<line>". An open instance may also ask to
// hear of every change of what a read answers, so its reader need not poll.
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/win_types.h"

namespace sim {

class DioBlock {
  public:
    static constexpr int lineCount = 32;

    DioBlock();
    ~DioBlock();
    DioBlock(const DioBlock&) = delete;
    DioBlock& operator=(const DioBlock&) = delete;

    // --- The outside world.
    // Sets the level applied to an input line (lines outside 0..31 are ignored).
    void setInput(int line, bool level);
    // Sets the levels applied to all lines at once, bit n = line n.
    void setInputs(DWORD levels);
    DWORD inputs() const;
    // What a read of the device answers: outputs where the line is an
    // output, the applied level elsewhere.
    DWORD levels() const;
    // The output word last written by the program, and one line of it.
    DWORD outputs() const;
    bool output(int line) const;
    DWORD direction() const;  // bit set = output

    // --- Interrupt state, as the program set it up.
    DWORD interruptMask() const;  // bit set = the line does not report
    DWORD armedRising() const;
    DWORD armedFalling() const;

    // --- Counters and faults for tests.
    int reads() const;
    int writes() const;
    int directionRequests() const;
    // While set, reads fail with ERROR_GEN_FAILURE.
    void failReads(bool fail);

    // --- The driver side (used by the stream driver's open instances).
    bool read(void* buffer, DWORD size, DWORD* done, DWORD& error);
    // `by`: the open instance making the request, if any.
    bool write(const void* buffer, DWORD size, DWORD* done, DWORD& error, const void* by = nullptr);
    bool ioControl(DWORD code, const void* in, DWORD inSize, DWORD& error,
                   const void* by = nullptr);
    // The change notice of one open instance (`owner`): `event` is set after
    // every change of what a read answers that the instance did not make
    // itself (it knows what it wrote); NULL_HANDLE ends it.
    void notifyChanges(const void* owner, HANDLE event);

  private:
    // Applies new input levels under `lock`, then (without it) reports the
    // edges that armed lines must report.
    void applyInputs(DWORD newInputs, std::unique_lock<std::mutex>& lock);
    void report(DWORD lines);
    HANDLE eventFor(int line);
    DWORD levelsLocked() const { return (outputs_ & direction_) | (inputs_ & ~direction_); }
    // Sets the change notices of every instance but `by`. Under the lock: a
    // woken reader reads only once the change is complete, and no event is
    // set after its notice ended.
    void noticeChange(const void* by = nullptr);

    mutable std::mutex mutex_;
    DWORD inputs_ = 0;
    DWORD outputs_ = 0;
    DWORD direction_ = 0;
    DWORD mask_ = 0;
    DWORD rising_ = 0;
    DWORD falling_ = 0;
    HANDLE events_[lineCount] = {};
    std::vector<std::pair<const void*, HANDLE>> watchers_;
    int reads_ = 0;
    int writes_ = 0;
    int directionRequests_ = 0;
    bool failReads_ = false;
};

// Registers a new block as the driver of `deviceName` and answers it; the
// registration keeps it alive (and so does every open handle).
std::shared_ptr<DioBlock> installDioBlock(const std::wstring& deviceName = L"DIO1:");
// Removes the driver; handles already open keep working.
void uninstallDioBlock(const std::wstring& deviceName = L"DIO1:");

}  // namespace sim
