#pragma once
// Internal to the host layer: the part of a named event that every process
// on the same unit root sees.
//
// How: each named event is a small file "<root>/.named-events/<name>" (the
// name lower-cased, other than letters, digits, '-', '_' and '.' written as
// %XX), mapped MAP_SHARED into every process that holds the event. Its words
// are the signalled state, the event data and the reset mode. A waiter sleeps
// on the signalled word with futex(2) (the shared variant, so that a wake-up
// from another process reaches it); SetEvent stores 1 and wakes every waiter,
// and an auto-reset waiter consumes the signal with a compare-and-swap, so
// exactly one waiter of all processes takes it.
//
// Lifetime, as on the original, where a named event lives while any process
// holds a handle: each holder keeps a shared flock(2) on the file; an opener
// that can take the lock exclusively is the only holder, so it sets the words
// afresh (mode, initial state, data 0) and a file left by an ended unit never
// carries its old state into the next one.
//
// Only when the unit root folder exists: without one (tests that never set a
// root, say) named events stay within the process.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/win_types.h"

namespace host {

class SharedEventState {
  public:
    // The shared state of `name` (already lower-cased) on unit root `root`,
    // or null when it cannot be had there. `existed`: another process holds it.
    static std::unique_ptr<SharedEventState> open(const std::string& root, const std::wstring& name,
                                                  bool manualReset, bool initialState,
                                                  bool& existed);
    ~SharedEventState();
    SharedEventState(const SharedEventState&) = delete;
    SharedEventState& operator=(const SharedEventState&) = delete;

    void set();
    void reset();
    void setData(DWORD data);
    DWORD data() const;
    // Consumes the signal (auto-reset) or looks at it (manual reset).
    bool take();
    // Sleeps until the signalled word may have changed, at most `ms` of real
    // time (INFINITE: no limit).
    void sleepWhileUnsignalled(DWORD ms);

  private:
    struct Words {
        std::atomic<std::uint32_t> signalled;
        std::atomic<std::uint32_t> data;
        std::atomic<std::uint32_t> manualReset;
    };
    SharedEventState(int fd, Words* words) : fd_(fd), words_(words) {}

    int fd_;
    Words* words_;
};

}  // namespace host
