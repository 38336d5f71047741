// LatencyBench: how long a key takes to be heard, and what the output costs.
//
//   LatencyBench BACKEND SERVER RECORDER PACK_DIR [KEYS]
//
// Plays PACK_DIR through the Conductor on the audio backend BACKEND
// (TOBRIN_AUDIO's names) while RECORDER (SinkRecorder, a separate process)
// records the default test sink of the SERVER it is given (pipewire|pulse) and
// maps every frame onto the server's clock. For KEYS key-downs (default 120),
// each at a random moment once the previous sound has ended, the latency is
// from the moment Conductor::handle receives the key (its time stamp,
// CLOCK_MONOTONIC) to the moment the server plays the first sample of its
// sound: the first non-zero frame of the recording after the key, less the
// take's own silent lead-in. Then this process's CPU time and wake-ups from
// /proc: running with no voices, typing 10 keys a second, and suspended.
#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

constexpr double rate = 48000;

// The recorder, started as a child process; its standard output is read
// until it says it is ready.
class Recorder {
public:
    Recorder(const std::string& program, const std::string& server, const std::string& file) {
        int fds[2];
        if (::pipe(fds) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(fds[1], STDOUT_FILENO);
            ::close(fds[0]);
            ::close(fds[1]);
            ::execl(program.c_str(), program.c_str(), server.c_str(), "tobrin-test-sink", file.c_str(), "900",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(fds[1]);
        output_ = ::fdopen(fds[0], "r");
    }

    // Waits for "ready"; the calibration line before it is kept.
    bool waitUntilReady() {
        if (!output_) return false;
        char line[256];
        while (std::fgets(line, sizeof line, output_)) {
            if (std::strncmp(line, "calibrated ", 11) == 0) calibration_ = line + 11;
            if (std::strcmp(line, "ready\n") == 0) return true;
        }
        return false;
    }

    // Stops the recording; true when the recorder wrote its file.
    bool finish() {
        if (pid_ <= 0) return false;
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        if (output_) std::fclose(output_);
        output_ = nullptr;
        pid_ = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    ~Recorder() {
        if (pid_ > 0) finish();
    }

    const std::string& calibration() const { return calibration_; }

private:
    pid_t pid_ = -1;
    FILE* output_ = nullptr;
    std::string calibration_;
};

// The recorder's file: frames and the calibrated time of each block's first.
struct Recording {
    struct Block {
        std::int64_t firstFrame;
        std::int64_t time;
    };
    std::vector<Block> blocks;
    std::vector<float> frames;

    static bool read(const std::string& path, Recording& recording) {
        std::ifstream file(path, std::ios::binary);
        char magic[6];
        std::int64_t count = 0;
        if (!file.read(magic, 6) || std::memcmp(magic, "TBREC1", 6) != 0) return false;
        file.read(reinterpret_cast<char*>(&count), sizeof count);
        recording.blocks.resize(std::size_t(count));
        file.read(reinterpret_cast<char*>(recording.blocks.data()), std::streamsize(count * sizeof(Block)));
        file.read(reinterpret_cast<char*>(&count), sizeof count);
        recording.frames.resize(std::size_t(count));
        file.read(reinterpret_cast<char*>(recording.frames.data()), std::streamsize(count * sizeof(float)));
        return bool(file);
    }

    // Server time of the first frame above `level` in [from, to), or -1.
    std::int64_t onset(float level, std::int64_t from, std::int64_t to) const {
        auto block = std::upper_bound(blocks.begin(), blocks.end(), from,
                                      [](std::int64_t t, const Block& b) { return t < b.time; });
        if (block != blocks.begin()) --block;
        for (; block != blocks.end(); ++block) {
            const std::size_t end = block + 1 != blocks.end() ? std::size_t((block + 1)->firstFrame) : frames.size();
            for (std::size_t f = std::size_t(block->firstFrame); f < end; ++f) {
                const std::int64_t t =
                    block->time + std::llround(double(f - std::size_t(block->firstFrame)) * 1e9 / rate);
                if (t >= to) return -1;
                if (t >= from && frames[f] > level) return t;
            }
        }
        return -1;
    }

    // The most common block length: the server's quantum, for PipeWire.
    std::int64_t commonBlock() const {
        std::vector<std::int64_t> lengths;
        for (std::size_t b = 1; b < blocks.size(); ++b)
            lengths.push_back(blocks[b].firstFrame - blocks[b - 1].firstFrame);
        if (lengths.empty()) return 0;
        std::nth_element(lengths.begin(), lengths.begin() + std::ptrdiff_t(lengths.size() / 2), lengths.end());
        return lengths[lengths.size() / 2];
    }
};

// This process as /proc sees it: CPU time of every thread (ns, from
// schedstat) and context switches of every thread but the calling one.
struct ProcessSample {
    std::int64_t cpu = 0;
    std::int64_t switches = 0;
    std::chrono::steady_clock::time_point at;

    static ProcessSample now() {
        ProcessSample sample;
        sample.at = std::chrono::steady_clock::now();
        const std::string self = std::to_string(::gettid());
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream schedstat(task.path() / "schedstat");
            std::int64_t onCpu = 0;
            if (schedstat >> onCpu) sample.cpu += onCpu;
            if (task.path().filename() == self) continue;
            std::ifstream status(task.path() / "status");
            std::string line;
            while (std::getline(status, line)) {
                if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                    sample.switches += std::stoll(line.substr(line.find(':') + 1));
            }
        }
        return sample;
    }
};

struct Usage {
    double cpuPercent;
    std::int64_t wakeups;
    double seconds;
};

Usage usageOver(std::chrono::steady_clock::duration span, const std::function<void()>& during = {}) {
    const ProcessSample before = ProcessSample::now();
    if (during)
        during();
    else
        std::this_thread::sleep_for(span);
    const ProcessSample after = ProcessSample::now();
    const double seconds = std::chrono::duration<double>(after.at - before.at).count();
    return {100.0 * double(after.cpu - before.cpu) / (seconds * 1e9), after.switches - before.switches, seconds};
}

std::string memory() {
    std::ifstream status("/proc/self/status");
    std::string line, rss, peak;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) rss = line.substr(6);
        if (line.rfind("VmHWM:", 0) == 0) peak = line.substr(6);
    }
    auto trim = [](std::string text) {
        text.erase(0, text.find_first_not_of(" \t"));
        return text;
    };
    return "resident " + trim(rss) + ", peak " + trim(peak);
}

// The fewest silent frames any alpha take of the pack starts with: the part
// of the first audible sample's delay that is the pack's, not the engine's.
std::uint32_t silentLeadIn(const LoadedPack& pack) {
    std::uint32_t lead = UINT32_MAX;
    for (std::size_t variant = 0; variant < pack.variantCount(KeyGroup::alpha); ++variant) {
        for (const TBSample& layer : pack.layers(KeyGroup::alpha, variant).samples) {
            if (!layer.left) continue;
            std::uint32_t first = 0;
            while (first < layer.frames && layer.left[first] == 0 && (!layer.right || layer.right[first] == 0)) ++first;
            lead = std::min(lead, first);
        }
    }
    return lead == UINT32_MAX ? 0 : lead;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const double index = p * double(values.size() - 1);
    const auto low = std::size_t(std::floor(index));
    const auto high = std::min(low + 1, values.size() - 1);
    return values[low] + (values[high] - values[low]) * (index - double(low));
}

constexpr std::array<std::uint16_t, 10> letters{KeyCode::a, KeyCode::s, KeyCode::d, KeyCode::f, KeyCode::g,
                                                KeyCode::h, KeyCode::e, KeyCode::r, KeyCode::t, KeyCode::y};

int run(int argc, char** argv) {
    if (argc < 5 || argc > 6) {
        std::fprintf(stderr, "usage: LatencyBench BACKEND SERVER RECORDER PACK_DIR [KEYS]\n");
        return 2;
    }
    const std::string backend = argv[1], server = argv[2], recorderProgram = argv[3];
    const int keys = argc == 6 ? std::atoi(argv[5]) : 120;
    const auto pack = LoadedPack::load(PackInfo::read(argv[4], true), rate);
    const double leadInMs = silentLeadIn(*pack) * 1e3 / rate;

    const std::string file = "/tmp/tobrin-latency-" + std::to_string(::getpid()) + ".rec";
    Recorder recorder(recorderProgram, server, file);
    if (!recorder.waitUntilReady()) {
        std::fprintf(stderr, "LatencyBench: the recorder did not start\n");
        return 1;
    }

    registerSoundServerBackends();
    auto audio = std::make_shared<AudioOutput>(AudioBackends::registered(), backend);
    Conductor conductor(audio, nullptr);
    EngineSettings settings;
    settings.forceSensing = false;
    conductor.apply(settings, true);
    conductor.setPack(pack);
    conductor.barrier();
    if (audio->backendName() != backend) {
        std::fprintf(stderr, "LatencyBench: the %s backend did not start\n", backend.c_str());
        return 1;
    }
    std::this_thread::sleep_for(1s);

    const Usage silent = usageOver(10s);

    // Keys at random moments: each after the previous sound has died away,
    // then 30-150 ms more, so they fall anywhere in the server's cycle.
    SplitMix64 random(20240611);
    std::vector<std::int64_t> pressed;
    const auto underrunsBefore = audio->underruns();
    for (int i = 0; i < keys; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(30'000 + std::int64_t(random.unit() * 120'000)));
        const std::uint64_t now = MachTime::now();
        const auto started = audio->startedVoices();
        conductor.handle(KeyEvent{letters[random.next() % letters.size()], KeyAction::down, now});
        pressed.push_back(std::int64_t(now));
        // The voice starts on the render thread, then rings out.
        const auto quietBy = std::chrono::steady_clock::now() + 2s;
        while ((audio->startedVoices() == started || audio->activeVoices() > 0) &&
               std::chrono::steady_clock::now() < quietBy)
            std::this_thread::sleep_for(2ms);
    }
    std::this_thread::sleep_for(500ms);
    const auto underruns = audio->underruns() - underrunsBefore;

    const Usage typing = usageOver(10s, [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 100; ++i) {
            std::this_thread::sleep_until(start + i * 100ms);
            const auto code = letters[std::size_t(i) % letters.size()];
            conductor.handle(KeyEvent{code, KeyAction::down, MachTime::now()});
            std::this_thread::sleep_until(start + i * 100ms + 60ms);
            conductor.handle(KeyEvent{code, KeyAction::up, MachTime::now()});
        }
        std::this_thread::sleep_until(start + 10s);
    });
    const std::string memoryAfterTyping = memory();

    // Suspended as after 180 s without a key (switching the sound off takes
    // the same path at once): output paused, only the 15 s idle check left.
    settings.enabled = false;
    conductor.apply(settings, false);
    conductor.barrier();
    std::this_thread::sleep_for(1s);
    const Usage suspended = usageOver(30s);

    if (!recorder.finish()) {
        std::fprintf(stderr, "LatencyBench: the recorder failed\n");
        return 1;
    }
    Recording recording;
    const bool read = Recording::read(file, recording);
    std::filesystem::remove(file);
    if (!read) {
        std::fprintf(stderr, "LatencyBench: cannot read the recording\n");
        return 1;
    }

    std::vector<double> latencies;
    int missing = 0;
    // A key's sound cannot play before the key; the window opens 2 ms early
    // only because a cycle's frames count from the cycle's start, which may
    // precede a key the same cycle still rendered.
    for (const std::int64_t key : pressed) {
        const std::int64_t onset = recording.onset(0.0f, key - 2'000'000, key + 500'000'000);
        if (onset < 0)
            ++missing;
        else
            latencies.push_back(double(onset - key) / 1e6 - leadInMs);
    }
    if (latencies.empty()) {
        std::fprintf(stderr, "LatencyBench: no key was heard\n");
        return 1;
    }

    std::printf("backend %s on %s", backend.c_str(), server.c_str());
    if (server == "pipewire") std::printf(", quantum %lld frames", static_cast<long long>(recording.commonBlock()));
    std::printf("\n  calibration (offset us, spread us, clicks): %s", recorder.calibration().c_str());
    std::printf("  key to sound over %zu keys (%d unheard): median %.2f ms, p90 %.2f ms, max %.2f ms, min %.2f ms\n",
                latencies.size(), missing, percentile(latencies, 0.5), percentile(latencies, 0.9),
                *std::max_element(latencies.begin(), latencies.end()),
                *std::min_element(latencies.begin(), latencies.end()));
    std::printf("  underruns while keys played: %llu\n", static_cast<unsigned long long>(underruns));
    std::printf("  CPU of this process: running silent %.3f %%, typing 10 keys/s %.3f %%, suspended %.4f %% "
                "(%lld wake-ups in %.0f s)\n",
                silent.cpuPercent, typing.cpuPercent, suspended.cpuPercent, static_cast<long long>(suspended.wakeups),
                suspended.seconds);
    std::printf("  memory after typing: %s\n", memoryAfterTyping.c_str());
    conductor.shutdown();
    return missing == 0 ? 0 : 1;
}

} // namespace
} // namespace tobrin

int main(int argc, char** argv) { return tobrin::run(argc, argv); }
