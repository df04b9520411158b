#include "platform/shared_event.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include "platform/text.h"

namespace host {
namespace {

static_assert(std::atomic<std::uint32_t>::is_always_lock_free,
              "shared event words must be lock-free to be shared between processes");

constexpr const char* kFolder = "/.named-events";

std::string fileName(const std::wstring& name) {
    std::string out;
    for (unsigned char c : narrow(name)) {
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
            (c == '.' && !out.empty())) {
            out += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        }
    }
    return out;
}

long futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value,
           const struct timespec* timeout) {
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op, value, timeout, nullptr,
                   0);
}

}  // namespace

std::unique_ptr<SharedEventState> SharedEventState::open(const std::string& root,
                                                         const std::wstring& name, bool manualReset,
                                                         bool initialState, bool& existed) {
    existed = false;
    struct stat rootInfo {};
    if (root.empty() || ::stat(root.c_str(), &rootInfo) != 0 || !S_ISDIR(rootInfo.st_mode))
        return nullptr;
    const std::string folder = root + kFolder;
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return nullptr;
    const std::string path = folder + "/" + fileName(name);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    if (::ftruncate(fd, sizeof(Words)) != 0) {
        ::close(fd);
        return nullptr;
    }
    void* map = ::mmap(nullptr, sizeof(Words), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        ::close(fd);
        return nullptr;
    }
    auto* words = static_cast<Words*>(map);
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        // No other process holds the event: it starts afresh.
        words->manualReset.store(manualReset ? 1 : 0);
        words->data.store(0);
        words->signalled.store(initialState ? 1 : 0);
    } else {
        existed = true;
    }
    // Held (shared) for as long as this process holds the event.
    while (::flock(fd, LOCK_SH) != 0 && errno == EINTR) {
    }
    return std::unique_ptr<SharedEventState>(new SharedEventState(fd, words));
}

SharedEventState::~SharedEventState() {
    ::munmap(words_, sizeof(Words));
    ::close(fd_);  // releases the lock
}

void SharedEventState::set() {
    words_->signalled.store(1);
    futex(&words_->signalled, FUTEX_WAKE, INT_MAX, nullptr);
}

void SharedEventState::reset() {
    words_->signalled.store(0);
}

void SharedEventState::setData(DWORD data) {
    words_->data.store(data);
}

DWORD SharedEventState::data() const {
    return words_->data.load();
}

bool SharedEventState::take() {
    if (words_->manualReset.load() != 0) return words_->signalled.load() != 0;
    std::uint32_t expected = 1;
    return words_->signalled.compare_exchange_strong(expected, 0);
}

void SharedEventState::sleepWhileUnsignalled(DWORD ms) {
    struct timespec limit {};
    limit.tv_sec = static_cast<time_t>(ms / 1000);
    limit.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    // Returns at once when the word is no longer 0; EINTR and time-outs come
    // back to the caller, which looks at the word and the clock again.
    futex(&words_->signalled, FUTEX_WAIT, 0, ms == INFINITE ? nullptr : &limit);
}

}  // namespace host
