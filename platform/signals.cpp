#include "platform/signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

#include "platform/last_error.h"
#include "platform/sync.h"

namespace host {
namespace {

// A signal handler may do almost nothing, so it only writes the signal
// number into a pipe; a watcher thread turns that into the event.
int pipeFds[2] = {-1, -1};
std::atomic<int> received{0};

extern "C" void onStopSignal(int sig) {
    const int saved = errno;
    int expected = 0;
    if (!received.compare_exchange_strong(expected, sig)) {
        // The second request: the orderly end did not finish, so end now.
        ::signal(sig, SIG_DFL);
        ::raise(sig);
    }
    const char byte = static_cast<char>(sig);
    [[maybe_unused]] ssize_t n = ::write(pipeFds[1], &byte, 1);
    errno = saved;
}

HANDLE install() {
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        SetLastError(ERROR_GEN_FAILURE);
        return NULL_HANDLE;
    }
    HANDLE event = CreateEventW(true, false, nullptr);
    if (!event) return NULL_HANDLE;
    std::thread([event] {
        char byte = 0;
        for (;;) {
            ssize_t n = ::read(pipeFds[0], &byte, 1);
            if (n == 1)
                SetEvent(event);
            else if (n < 0 && errno == EINTR)
                continue;
            else
                return;
        }
    }).detach();
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGINT, &action, nullptr) != 0 || ::sigaction(SIGTERM, &action, nullptr) != 0) {
        SetLastError(ERROR_GEN_FAILURE);
        return NULL_HANDLE;
    }
    return event;
}

}  // namespace

HANDLE stopSignalEvent() {
    static std::once_flag once;
    static HANDLE event = NULL_HANDLE;
    std::call_once(once, [] { event = install(); });
    return event;
}

}  // namespace host
