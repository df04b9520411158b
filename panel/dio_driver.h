#pragma once
// DioDriver: the digital-I/O driver of the process, on the device "DIO1:".
// Points are registered at their line (0..31): outputs are written through it,
// and its thread polls the levels every 10 ms and hands changes on lines 0..7
// to the input points there. A device that reports its changes spares it the
// rounds in which nothing changed (see pollUntilStopped).
#include <array>
#include <string>

#include "panel/io_driver.h"
#include "platform/sync.h"

class DioDriver final : public IODriver {
  public:
    static constexpr int lineCount = 32;
    static constexpr int watchedLines = 8;  // inputs examined for changes: lines 0..7

    // The process's driver on "DIO1:" with a 10 ms poll, made on first use.
    static DioDriver* instance();

    // A driver of its own on `deviceName`. The process has one, instance();
    // tests make their own.
    explicit DioDriver(std::wstring deviceName = L"DIO1:", DWORD period = 10);
    ~DioDriver() override;

    // Ignored unless 0 <= line <= 31 and a point is given. The line becomes an
    // input for an input point and an output otherwise.
    void registerPoint(IOPoint* point, int line);
    void write(bool level, IOPoint* point) override;
    void detach(IOPoint* point) override;
    std::wstring name() const override { return deviceName_; }

    DWORD direction() const;
    DWORD outputs() const;
    IOPoint* pointAt(int line) const;

  private:
    void run() override;
    void pollUntilStopped(HANDLE device, bool reportsChanges);
    // Waits until the next round is due, `period()` after `lastRound` or
    // (after a long wait for a change) the next multiple of it; false once
    // stopped.
    bool pauseUntilNextRound(DWORD lastRound);
    // One round; false when the device could not be read.
    bool poll(HANDLE device);
    void sendDirection();  // under pointsLock_
    // A point replaced at a line: it forgets the driver unless it is still
    // registered at another line. Under pointsLock_, after the replacement.
    void release(IOPoint* point);

    mutable host::CriticalSection pointsLock_;
    mutable host::CriticalSection ioLock_;
    std::array<IOPoint*, lineCount> points_{};
    const std::wstring deviceName_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;  // under ioLock_
    DWORD direction_ = 0;                   // bit set = output; under pointsLock_
    DWORD outputs_ = 0;                     // levels last written; under pointsLock_
};
