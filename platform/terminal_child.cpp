#include "platform/terminal_child.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace host {

TerminalChild::TerminalChild(const std::string& program, const std::vector<std::string>& args,
                             int rows, int cols,
                             const std::vector<std::pair<std::string, std::string>>& env) {
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(cols);
    const pid_t pid = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid == 0) {
        for (const auto& [name, value] : env) ::setenv(name.c_str(), value.c_str(), 1);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    pid_ = pid;
    if (master_ >= 0) ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
}

TerminalChild::~TerminalChild() {
    if (pid_ > 0 && !exitCode_) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    if (master_ >= 0) ::close(master_);
}

std::string TerminalChild::read(int waitMs) {
    std::string got;
    if (master_ < 0) return got;
    pollfd fd{master_, POLLIN, 0};
    if (::poll(&fd, 1, waitMs) <= 0) return got;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(master_, buffer, sizeof buffer);
        if (n <= 0) return got;
        got.append(buffer, static_cast<std::size_t>(n));
    }
}

void TerminalChild::type(const std::string& keys) {
    if (master_ >= 0) [[maybe_unused]]
        const ssize_t n = ::write(master_, keys.data(), keys.size());
}

std::optional<int> TerminalChild::exitCode() {
    if (exitCode_ || pid_ <= 0) return exitCode_;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_)
        exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitCode_;
}

}  // namespace host
