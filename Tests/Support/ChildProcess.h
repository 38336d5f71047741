#pragma once
// A forked child process for tests of what happens across processes: a
// writer killed at a point the test chooses, writers running at once, a run
// as a user the machine does not know. The child never returns into the test
// framework: it leaves with _exit and the value its body returns.

#include <chrono>
#include <functional>

#include <csignal>
#include <poll.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tobrin::test {

// A user id with no entry in the user database: no name, no home folder.
inline constexpr uid_t userWithoutAccount = 54321;

class ChildProcess {
public:
    // Runs body(ready) in a new process; ready() tells the parent that the
    // child has reached the point the test waits for.
    explicit ChildProcess(const std::function<int(const std::function<void()>& ready)>& body) {
        int fds[2] = {-1, -1};
        if (::pipe(fds) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(fds[0]);
            const int writeEnd = fds[1];
            int status = 1;
            try {
                status = body([writeEnd] { (void)!::write(writeEnd, "r", 1); });
            } catch (...) {
                status = 99;
            }
            ::_exit(status);
        }
        ::close(fds[1]);
        readEnd_ = fds[0];
    }
    ~ChildProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        if (readEnd_ >= 0) ::close(readEnd_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }

    // True once the child called ready(), false on time-out or when it ended first.
    bool waitUntilReady(std::chrono::milliseconds timeout) {
        pollfd poll{readEnd_, POLLIN, 0};
        if (::poll(&poll, 1, int(timeout.count())) != 1) return false;
        char byte = 0;
        return ::read(readEnd_, &byte, 1) == 1;
    }

    void kill(int signal = SIGKILL) { ::kill(pid_, signal); }

    // The child's exit status, or 128 + the signal that ended it.
    int wait() {
        if (reaped_) return status_;
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0) {
            if (errno != EINTR) return -1;
        }
        reaped_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return status_;
    }

private:
    pid_t pid_ = -1;
    int readEnd_ = -1;
    bool reaped_ = false;
    int status_ = -1;
};

} // namespace tobrin::test
