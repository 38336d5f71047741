// Key codes go from the source to the handler and nowhere else. A process
// that runs the key monitor while 1200 key events are typed is traced with
// strace: every write, send, connect and file opened for writing is seen.
#include "Support/Eventually.h"
#include "Support/PrivateXServer.h"
#include "Support/RunningProgram.h"
#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <fstream>
#include <set>

namespace tobrin {
namespace {

TEST(Privacy, NoKeyCodeLeavesTheMonitorsProcess) {
    test::PrivateXServer server;
    test::TemporaryFolder folder;
    const auto trace = folder / "trace";
    constexpr int taps = 600;
    test::RunningProgram probe({"/usr/bin/strace", "-f", "-qq", "-s", "64", "-o", trace.string(), "-e",
                                "trace=write,writev,pwrite64,pwritev,pwritev2,send,sendto,sendmsg,sendmmsg,open,"
                                "openat,creat,connect,rename,renameat,renameat2,truncate,ftruncate",
                                TOBRIN_KEY_PRIVACY_PROBE, server.display(), std::to_string(2 * taps)},
                               {}, (folder / "output").string());
    ASSERT_TRUE(test::eventually([&] { return probe.output() == "ready\n"; }, std::chrono::seconds(30)))
        << probe.output();
    test::FakeKeyboard keyboard(server.display());
    const std::uint16_t keys[] = {KEY_P, KEY_A, KEY_S, KEY_W, KEY_O, KEY_R, KEY_D, KEY_1, KEY_ENTER, KEY_LEFTSHIFT};
    for (int i = 0; i < taps; ++i) keyboard.tap(keys[i % std::size(keys)]);
    ASSERT_EQ(probe.wait(std::chrono::seconds(60)), 0) << probe.output();
    // Standard output and error together: the two lines the probe writes itself.
    EXPECT_EQ(probe.output(), "ready\ndone " + std::to_string(2 * taps) + "\n");

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
    std::ifstream in(trace);
    for (std::string line; std::getline(in, line);) {
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
}

} // namespace
} // namespace tobrin
