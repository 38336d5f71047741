// Key codes go from the source to the handler and nowhere else. A process
// that runs the key monitor while 1200 key events are typed is traced with
// strace: every write, send, connect and file opened for writing is seen.
#include "Support/PrivateXServer.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace tobrin {
namespace {

// One line of the child's standard output, or "" after `seconds`.
std::string readLine(int fd, int seconds) {
    std::string line;
    char c;
    pollfd polled{fd, POLLIN, 0};
    while (::poll(&polled, 1, seconds * 1000) == 1 && ::read(fd, &c, 1) == 1) {
        line += c;
        if (c == '\n') break;
    }
    return line;
}

TEST(Privacy, NoKeyCodeLeavesTheMonitorsProcess) {
    test::PrivateXServer server;
    const auto folder = std::filesystem::temp_directory_path() / ("tobrin-privacy-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    const auto trace = folder / "trace", errors = folder / "stderr";
    constexpr int taps = 600;

    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    std::vector<std::string> words = {
        "strace",
        "-f",
        "-qq",
        "-s",
        "64",
        "-o",
        trace.string(),
        "-e",
        "trace=write,writev,pwrite64,pwritev,pwritev2,send,sendto,sendmsg,sendmmsg,open,openat,creat,"
        "connect,rename,renameat,renameat2,truncate,ftruncate",
        TOBRIN_KEY_PRIVACY_PROBE,
        server.display(),
        std::to_string(2 * taps)};
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t child = -1;
    ASSERT_EQ(posix_spawnp(&child, "strace", &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);

    std::string output = readLine(out[0], 30);
    ASSERT_EQ(output, "ready\n");
    test::FakeKeyboard keyboard(server.display());
    const std::uint16_t keys[] = {KEY_P, KEY_A, KEY_S, KEY_W, KEY_O, KEY_R, KEY_D, KEY_1, KEY_ENTER, KEY_LEFTSHIFT};
    for (int i = 0; i < taps; ++i) keyboard.tap(keys[i % std::size(keys)]);
    output += readLine(out[0], 60);
    ::close(out[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    // Standard output holds the two lines the probe writes itself, standard
    // error nothing.
    EXPECT_EQ(output, "ready\ndone " + std::to_string(2 * taps) + "\n");
    EXPECT_EQ(std::filesystem::file_size(errors), 0u);

    std::ifstream in(trace);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    // Every line that could carry what was typed out of the process. A line
    // is "PID name(arguments) = result"; resumed calls and signals are skipped.
    const std::set<std::string> changing = {"creat", "rename", "renameat", "renameat2", "truncate", "ftruncate"};
    const std::set<std::string> sending = {"write", "writev", "pwrite64", "pwritev", "pwritev2",
                                           "send",  "sendto", "sendmsg",  "sendmmsg"};
    const std::string xServer = "/tmp/.X11-unix/X" + server.display().substr(1) + "\"";
    const std::string wakeUp = "\"\\1\\0\\0\\0\\0\\0\\0\\0\", 8)"; // the eventfd's 8-byte 1
    const auto contains = [](const std::string& line, const char* text) {
        return line.find(text) != std::string::npos;
    };
    std::vector<std::string> leaks;
    bool listening = false, traced = false;
    for (const auto& line : lines) {
        const auto nameStart = line.find_first_not_of(' ', line.find(' ')), nameEnd = line.find('(');
        if (nameStart == std::string::npos || nameEnd == std::string::npos || nameEnd < nameStart) continue;
        const std::string name = line.substr(nameStart, nameEnd - nameStart);
        const bool opensForWriting =
            (name == "open" || name == "openat") &&
            (contains(line, "O_WRONLY") || contains(line, "O_RDWR") || contains(line, "O_CREAT") ||
             contains(line, "O_TRUNC") || contains(line, "O_APPEND"));
        if (opensForWriting || changing.count(name) || (name == "connect" && !contains(line, xServer.c_str())))
            leaks.push_back(line);
        if (!sending.count(name)) continue;
        if (contains(line, "write(1, \"ready\\n\"")) {
            listening = true;
        } else if (contains(line, "write(1, \"done ")) {
            listening = false;
            traced = true;
        } else if (listening && !(name == "write" && contains(line, wakeUp.c_str()))) {
            // While keys are typed, nothing leaves but the stop's wake-up.
            leaks.push_back(line);
        }
    }
    EXPECT_EQ(leaks, std::vector<std::string>{});
    EXPECT_TRUE(traced) << "the trace missed the end of the run";
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace tobrin
