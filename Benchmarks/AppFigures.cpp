// Figures of the running application, measured on a private Xvfb and a
// private PipeWire (tools/app-figures builds and runs it):
//   - from exec to the first typed key being heard at the sink (keys are typed
//     through XTEST every 5 ms from the moment of exec), over several starts;
//   - the CPU the idle program uses while awake and after the engine's 180 s
//     idle suspension (from /proc/PID/stat over a window);
//   - its resident and proportional memory with the default pack loaded
//     (/proc/PID/smaps_rollup).
//
//   AppFigures TOBRIN PACKS_DIR [STARTS] [--no-idle]
#include "Support/PrivateXServer.h"
#include "Support/RunningProgram.h"
#include "Support/SoundServers.h"
#include "Support/TemporaryFolder.h"

#include <linux/input-event-codes.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace tobrin;
using Clock = std::chrono::steady_clock;

namespace {

// utime + stime of a process, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) utime = std::stoull(field);
        if (index == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return double(utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

// Rss and Pss in MiB.
std::pair<double, double> memory(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double rss = 0, pss = 0;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        double kibibytes = 0;
        if (!(fields >> key >> kibibytes)) continue;
        if (key == "Rss:") rss = kibibytes / 1024;
        if (key == "Pss:") pss = kibibytes / 1024;
    }
    return {rss, pss};
}

double percentOfOneCore(pid_t pid, std::chrono::seconds window) {
    const double before = cpuSeconds(pid);
    std::this_thread::sleep_for(window);
    return (cpuSeconds(pid) - before) / double(window.count()) * 100;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: AppFigures TOBRIN PACKS_DIR [STARTS] [--no-idle]\n");
        return 2;
    }
    const std::string tobrin = argv[1], packs = argv[2];
    const int starts = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
    const bool idle = !(argc > 4 && std::string(argv[4]) == "--no-idle");

    test::PrivateSoundServer server(test::SoundServerKind::PipeWire);
    test::PrivateXServer x;
    test::FakeKeyboard keyboard(x.display());
    test::SinkCapture capture(test::PrivateSoundServer::defaultSink);
    if (!capture.waitUntilCapturing(3s)) {
        std::fprintf(stderr, "the sink's monitor delivers nothing\n");
        return 1;
    }
    test::TemporaryFolder folder;
    const std::map<std::string, std::string> environment = {{"DISPLAY", x.display()},
                                                            {"XDG_CONFIG_HOME", (folder / "config").string()},
                                                            {"XDG_DATA_HOME", (folder / "data").string()},
                                                            {"XDG_SESSION_TYPE", "x11"},
                                                            {"TOBRIN_PACKS", packs}};

    std::vector<double> startups;
    std::unique_ptr<test::RunningProgram> running;
    for (int run = 0; run < starts; ++run) {
        std::filesystem::remove_all(folder / "config");
        running.reset();
        std::this_thread::sleep_for(300ms); // the last run's sound rings out
        const auto exec = Clock::now();
        running = std::make_unique<test::RunningProgram>(std::vector<std::string>{tobrin}, environment,
                                                         (folder / "tobrin.log").string());
        std::optional<Clock::time_point> heard;
        while (!heard && Clock::now() - exec < 10s) {
            keyboard.tap(KEY_A);
            keyboard.sync();
            heard = capture.soundAfter(exec, 5ms);
        }
        if (!heard) {
            std::fprintf(stderr, "no key was heard within 10 s:\n%s", running->output().c_str());
            return 1;
        }
        startups.push_back(std::chrono::duration<double, std::milli>(*heard - exec).count());
    }
    std::sort(startups.begin(), startups.end());
    std::printf("exec to first key heard: median %.0f ms, min %.0f ms, max %.0f ms (%d starts)\n",
                startups[startups.size() / 2], startups.front(), startups.back(), starts);

    const pid_t pid = running->pid();
    std::this_thread::sleep_for(2s);
    const auto [rss, pss] = memory(pid);
    std::printf("memory with the default pack loaded: RSS %.1f MiB, PSS %.1f MiB\n", rss, pss);
    if (!idle) return 0;
    std::printf("idle CPU while awake: %.2f %% of one core (30 s)\n", percentOfOneCore(pid, 30s));
    // The engine suspends after 180 s without a key (checked every 15 s).
    std::this_thread::sleep_for(170s);
    std::printf("idle CPU after the suspension: %.2f %% of one core (30 s)\n", percentOfOneCore(pid, 30s));
    const auto [rssAfter, pssAfter] = memory(pid);
    std::printf("memory after the suspension: RSS %.1f MiB, PSS %.1f MiB\n", rssAfter, pssAfter);
    running->signal(SIGTERM);
    return running->wait(2s) == 0 ? 0 : 1;
}
