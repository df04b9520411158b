#pragma once
// IODriver: owns a device and moves bits between it and its I/O points in a
// thread of its own (time-critical priority), polling until it is stopped.
#include <atomic>
#include <string>

#include "panel/poll_thread.h"
#include "platform/win_types.h"

class IOPoint;

class IODriver {
  public:
    virtual ~IODriver();
    IODriver(const IODriver&) = delete;
    IODriver& operator=(const IODriver&) = delete;

    // Sets an output point's line; drivers without outputs ignore it.
    virtual void write(bool level, IOPoint* point);
    virtual std::wstring name() const = 0;
    // The point is going away: the driver must not touch it any more.
    virtual void detach(IOPoint* point);

    // Stops the thread and waits until it has closed the device and ended.
    void halt();
    bool isRunning() const { return thread_.running(); }
    bool stopped() const { return thread_.stopRequested(); }
    DWORD period() const { return period_; }
    DWORD lastBits() const { return lastBits_.load(); }

  protected:
    explicit IODriver(DWORD period);

    // Starts the thread with run() as its body; the last step of a driver's
    // constructor. Returns once the body has called ready() (or ended), so the
    // constructor can rely on what the thread set up (its device handle).
    // False when the thread could not start or its body ended at once.
    bool start();
    virtual void run() = 0;
    void ready();
    // Sleeps between polls; false once the driver is being stopped. Setting
    // wakeEvent() ends a pause early and ends waitForWake().
    bool pause(DWORD ms) { return thread_.pause(ms); }
    bool waitForWake() { return thread_.waitForWake(); }
    HANDLE wakeEvent() const { return thread_.wakeEvent(); }
    bool stopRequested() const { return thread_.stopRequested(); }

    std::atomic<DWORD> lastBits_{0};

  private:
    const DWORD period_;
    HANDLE ready_;
    std::atomic<bool> bodyEnded_{false};
    panel::PollThread thread_;
};
