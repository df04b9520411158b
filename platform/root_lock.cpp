#include "platform/root_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace host {
namespace {

std::string contentsOf(int fd) {
    char buffer[64] = {};
    const ssize_t n = ::pread(fd, buffer, sizeof buffer - 1, 0);
    std::string text(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

}  // namespace

std::optional<RootLock> RootLock::acquire(const std::string& root, std::string& error,
                                          bool& heldElsewhere) {
    heldElsewhere = false;
    std::error_code ec;
    std::filesystem::create_directories(root, ec);
    const std::string path = root + "/" + kFileName;
    // Close-on-exec: a program the unit starts (its reset helper) must not
    // keep the lock after the unit has gone.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot open the lock file " + path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int cause = errno;
        if (cause == EWOULDBLOCK) {
            heldElsewhere = true;
            const std::string holder = contentsOf(fd);
            error = "the unit root " + root + " is in use by " +
                    (holder.empty() ? std::string("another process") : "process " + holder) +
                    " (lock " + path + ")";
        } else {
            error = "cannot lock " + path + ": " + std::strerror(cause);
        }
        ::close(fd);
        return std::nullopt;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) < 0) {
        // The lock holds all the same; only the holder's name would be missing.
    }
    return RootLock(fd);
}

RootLock::RootLock(RootLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

RootLock::~RootLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace host
