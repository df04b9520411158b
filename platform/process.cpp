#include "platform/process.h"

#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/files.h"
#include "platform/last_error.h"
#include "platform/text.h"

#if defined(__SANITIZE_ADDRESS__)
#define TOVEL_LEAK_CHECK_AT_EXIT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TOVEL_LEAK_CHECK_AT_EXIT 1
#endif
#endif
#ifdef TOVEL_LEAK_CHECK_AT_EXIT
#include <sanitizer/lsan_interface.h>
#endif

extern char** environ;

namespace host {
namespace {

struct Exit {
    std::mutex mutex;
    ExitHandler handler;
};
Exit& exitState() {
    static Exit e;
    return e;
}

}  // namespace

BOOL CreateProcessW(const wchar_t* program, const wchar_t* commandLine) {
    if (!program) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE_;
    }
    std::string path = mapPath(program);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE_;
    }
    std::vector<std::string> words{path};
    if (commandLine && *commandLine) words.push_back(narrow(commandLine));
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
    if (rc != 0) {
        SetLastError(rc == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
        return FALSE_;
    }
    // The child is not waited for; it is reaped when this process ends (or by init).
    return TRUE_;
}

void ExitProcess(int code) {
    ExitHandler handler;
    {
        auto& e = exitState();
        std::lock_guard<std::mutex> lock(e.mutex);
        handler = e.handler;
    }
    if (handler) {
        handler(code);
        // A test handler that returns: this thread behaves as if the process
        // had ended and never comes back.
        std::mutex parked;
        std::unique_lock<std::mutex> lock(parked);
        std::condition_variable never;
        for (;;) never.wait(lock);
    }
    std::fflush(nullptr);
#ifdef TOVEL_LEAK_CHECK_AT_EXIT
    // _Exit skips the leak checker's own end-of-process run; without this an
    // AddressSanitizer build would never report a leak of the unit. Memory
    // that running threads or globals still reach is not a leak.
    __lsan_do_leak_check();
#endif
    std::_Exit(code);
}

ExitHandler setExitHandler(ExitHandler handler) {
    auto& e = exitState();
    std::lock_guard<std::mutex> lock(e.mutex);
    ExitHandler old = std::move(e.handler);
    e.handler = std::move(handler);
    return old;
}

}  // namespace host
