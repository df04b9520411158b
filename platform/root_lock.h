#pragma once
// One unit per root: an advisory lock on a file in the unit root, held for
// the life of the process (the system releases it however the process ends).
// A second unit on the same root would take over the control socket and
// write the same usb.log.
#include <optional>
#include <string>

namespace host {

class RootLock {
  public:
    static constexpr const char* kFileName = "tovel.lock";

    // Takes the lock on `root` (a host folder, created if missing) and writes
    // this process's id into the lock file. nullopt with the reason in
    // `error` when another process holds it (naming that process) or the
    // file cannot be made; `heldElsewhere` tells the two apart.
    static std::optional<RootLock> acquire(const std::string& root, std::string& error,
                                           bool& heldElsewhere);

    RootLock(RootLock&& other) noexcept;
    RootLock& operator=(RootLock&&) = delete;
    RootLock(const RootLock&) = delete;
    ~RootLock();

  private:
    explicit RootLock(int fd) : fd_(fd) {}
    int fd_;
};

}  // namespace host
