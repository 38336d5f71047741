#pragma once
// A forked child process for tests of what happens across processes: a
// writer killed at a point the test chooses, writers running at once, a run
// as a user the machine does not know. The child never returns into the test
// framework: it leaves with _exit and the value its body returns.

#include <chrono>
#include <functional>

#include <csignal>
#include <poll.h>
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
            const int signal = fds[1];
            int status = 99; // an exception
            try {
                status = body([signal] { (void)!::write(signal, "r", 1); });
            } catch (...) {
            }
            ::_exit(status);
        }
        ::close(fds[1]);
        ready_ = fds[0];
    }
    ~ChildProcess() {
        if (status_ < 0) kill(), wait();
        ::close(ready_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // True once the child called ready(); false on time-out or when it ended first.
    bool waitUntilReady(std::chrono::milliseconds timeout) {
        pollfd poll{ready_, POLLIN, 0};
        char byte = 0;
        return ::poll(&poll, 1, int(timeout.count())) == 1 && ::read(ready_, &byte, 1) == 1;
    }
    void kill() { ::kill(pid_, SIGKILL); }
    // The child's exit status, or 128 + the signal that ended it.
    int wait() {
        int status = 0;
        if (status_ < 0 && ::waitpid(pid_, &status, 0) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_;
    }

private:
    pid_t pid_ = -1;
    int ready_ = -1;
    int status_ = -1;
};

} // namespace tobrin::test
