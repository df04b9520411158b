#pragma once
// A scripted stand-in for the USB/DSP driver "DSP1:": it records every
// DeviceIoControl exactly as the link made it and answers from a script
// (failures, status blocks, reply frames). A DSP that runs by itself is the
// simulator's (sim_link_test.cpp).
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"
#include "platform/devices.h"

namespace linktest {

struct IoCall {
    DWORD code = 0;
    bool inIsNull = true;
    DWORD inSize = 0;
    bool outIsNull = true;
    DWORD outSize = 0;
    bool returnedIsNull = true;
    std::vector<BYTE> sent;  // the outgoing frame (send calls only)
    DWORD tick = 0;          // clock tick when the call arrived
    bool failed = false;
};

struct StatusBlock {
    BYTE status = 4;
    BYTE sequence = 1;
};

class ScriptedDsp : public host::StreamDriver, public std::enable_shared_from_this<ScriptedDsp> {
  public:
    // Registers itself as "DSP1:".
    static std::shared_ptr<ScriptedDsp> install();
    ~ScriptedDsp() override;

    // Opens "DSP1:" through the host, as the board registry would.
    HANDLE open();

    // The next `count` calls fail with `error` (then the script goes on).
    void failNext(int count, DWORD error);
    // Every send of a frame with this device id fails with `error`, starting
    // with the `skip`+1-th such frame.
    void failSendsOfDevice(BYTE device, int skip, DWORD error);
    // Status blocks for successive reads; once they are used up, the last one
    // read stays.
    void pushStatus(BYTE status, BYTE sequence);
    // The frame the next data reads answer with (zero-padded).
    void setReply(std::vector<BYTE> frame);
    // Virtual milliseconds each call takes (advances the manual clock).
    void setCallTime(std::shared_ptr<host::ManualClock> clock, DWORD ms);

    std::vector<IoCall> calls() const;
    int countCalls(DWORD code) const;
    std::vector<std::vector<BYTE>> sentFrames() const;
    int closes() const;

    // Called by the open instance.
    bool ioControl(DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* returned,
                   DWORD& error);
    void onClose();
    std::shared_ptr<host::DeviceInstance> open(DWORD access, DWORD shareMode,
                                               DWORD& error) override;

  private:
    mutable std::mutex mutex_;
    std::vector<IoCall> calls_;
    std::deque<DWORD> failures_;
    BYTE failDevice_ = 0;
    int failDeviceSkip_ = 0;
    DWORD failDeviceError_ = 0;
    std::deque<StatusBlock> statusQueue_;
    StatusBlock current_;
    std::vector<BYTE> reply_;
    std::shared_ptr<host::ManualClock> clock_;
    DWORD callMs_ = 0;
    int closes_ = 0;
};

}  // namespace linktest
