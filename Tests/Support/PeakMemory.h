#pragma once
// Runs a shell command as a user would and reports how much memory it took:
// the largest resident set among the processes it ran, as the kernel counts
// it for wait4.

#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tobrin::test {

struct MeasuredRun {
    int exitStatus = -1;
    long peakKiB = 0;
};

// Output is discarded; only the exit status and the peak are kept.
inline MeasuredRun runMeasured(const std::string& command) {
    const std::string line = command + " >/dev/null 2>&1";
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    MeasuredRun run;
    int status = 0;
    rusage usage{};
    if (child > 0 && ::wait4(child, &status, 0, &usage) == child) {
        if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
        run.peakKiB = usage.ru_maxrss;
    }
    return run;
}

} // namespace tobrin::test
