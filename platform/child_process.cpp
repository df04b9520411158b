#include "platform/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

extern char** environ;

namespace host {

int currentProcessId() {
    return static_cast<int>(::getpid());
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::string& outputFile) {
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!outputFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    }
    pid_t pid = 0;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) == 0)
        pid_ = pid;
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !exitCode_) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds limit) {
    if (exitCode_ || pid_ <= 0) return exitCode_;
    // Real time on purpose: the child runs on its own clock.
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitCode_;
        }
        if (std::chrono::steady_clock::now() >= until) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void ChildProcess::terminate() {
    if (pid_ > 0 && !exitCode_) ::kill(pid_, SIGTERM);
}

}  // namespace host
