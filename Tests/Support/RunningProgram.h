#pragma once
// A program run as a user would run it, with extra environment variables:
// its output (standard output and error together) goes to a file the test
// reads, and it is ended by process id when the object goes, also when the
// test fails.

#include "Support/Eventually.h"
#include "Support/TemporaryFolder.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace tobrin::test {

class RunningProgram {
public:
    // `environment`: variables to set (an empty value unsets one).
    // `folder`: the working folder (empty: this process's).
    RunningProgram(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment,
                   const std::string& outputFile, const std::string& folder = {})
        : outputFile_(outputFile) {
        // This process's variables but those `environment` names, then its own.
        std::vector<std::string> envText;
        for (char** entry = environ; *entry; ++entry) {
            const std::string text = *entry;
            if (!environment.contains(text.substr(0, text.find('=')))) envText.push_back(text);
        }
        for (const auto& [name, value] : environment)
            if (!value.empty()) envText.push_back(name + "=" + value);
        std::vector<char*> envp, argv;
        for (auto& text : envText) envp.push_back(text.data());
        envp.push_back(nullptr);
        std::vector<std::string> copy = words;
        for (auto& word : copy) argv.push_back(word.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        if (!folder.empty()) posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
        const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) throw std::runtime_error("cannot start " + words.front());
    }

    ~RunningProgram() {
        if (!status_) {
            ::kill(pid_, SIGKILL);
            wait(std::chrono::seconds(10));
        }
    }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    void signal(int number) { ::kill(pid_, number); }

    // The exit status (128 + signal when a signal ended it), or nothing when
    // it has not ended within `timeout`.
    std::optional<int> wait(std::chrono::milliseconds timeout) {
        eventually(
            [&] {
                int status = 0;
                if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_)
                    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return status_.has_value();
            },
            timeout);
        return status_;
    }

    std::string output() const { return readFile(outputFile_); }
    // Ends it with SIGTERM and waits until it has.
    void stop() {
        signal(SIGTERM);
        wait(std::chrono::seconds(10));
    }

    pid_t pid() const { return pid_; }

private:
    std::string outputFile_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

} // namespace tobrin::test
