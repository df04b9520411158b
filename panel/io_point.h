#pragma once
// IOPoint: one panel line (or group of lines). It keeps a short queue of its
// latest values, oldest first, and tells its listeners about them through its
// updater, or at once in the setting thread when it keeps no history.
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "panel/io_driver.h"
#include "panel/io_listeners.h"
#include "panel/io_updater.h"
#include "panel/io_value.h"
#include "platform/sync.h"

class IOPoint : public IOUpdateOwner {
  public:
    using Updater = IOUpdater<IOPointEventListener>;

    // historyDepth: how many values the queue keeps (at least one always is);
    // 0 means listeners are told at once in the thread that sets the value.
    explicit IOPoint(int historyDepth = 1, bool activeLevel = true);
    ~IOPoint() override;
    IOPoint(const IOPoint&) = delete;
    IOPoint& operator=(const IOPoint&) = delete;

    virtual bool isInput() const { return false; }
    virtual bool isOutput() const { return false; }
    virtual bool isMulti() const { return false; }
    virtual void setValue(int raw);

    bool hasEvents() override;
    void removeEvent() override;
    // The oldest queued value; none when the queue is empty.
    std::optional<IOValue> currentValue() const;
    std::size_t queuedCount() const;

    // Appends to the updater's list; a point without an updater has nobody
    // to tell, so the listener is not kept.
    void addListener(IOPointEventListener* listener);
    bool removeListener(IOPointEventListener* listener);

    // The driver that feeds the point, which the point now owns: its
    // destructor stops and deletes it.
    void adoptDriver(std::unique_ptr<IODriver> driver);
    IODriver* driver() const { return driver_; }

    // Bookkeeping of drivers that keep the point in their tables: a driver
    // notes itself when the point is registered and forgets itself when it
    // goes; the point leaves every such table when it goes.
    void noteRegistration(IODriver* driver);
    void forgetRegistration(IODriver* driver);
    Updater* updater() const { return updater_.get(); }
    int historyDepth() const { return historyDepth_; }
    bool activeLevel() const { return activeLevel_; }

  protected:
    // The kinds that tell listeners create their updater in their constructor.
    void createUpdater(DWORD period);
    // A driver shared with other points (the digital-I/O driver): used, not owned.
    void useDriver(IODriver* driver) { driver_ = driver; }
    // The raw word as a level under `activeLevel`.
    bool levelOf(int raw) const { return activeLevel_ ? raw > 0 : raw == 0; }
    // Adds at the tail and drops the oldest values beyond the depth.
    void append(IOValue value);
    // The updater's dispatch, in the calling thread.
    void dispatchNow();
    // Tells one listener about `value` in the listener's own terms.
    virtual void notify(IOPointEventListener& listener, const IOValue& value);
    // Stops the driver and the updater, so nothing calls into the point any
    // more. Every point kind's destructor calls it first, while the object is
    // still whole; later calls do nothing.
    void shutDown();

  private:
    std::unique_ptr<Updater> updater_;
    IODriver* driver_ = nullptr;
    std::unique_ptr<IODriver> ownedDriver_;
    const int historyDepth_;
    std::deque<IOValue> history_;
    mutable host::CriticalSection lock_;
    const bool activeLevel_;
    std::vector<IODriver*> registrations_;  // under lock_
    // What the listeners of the current dispatch round are handed.
    std::optional<IOValue> dispatched_;
};
