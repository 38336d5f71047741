// Engine costs: the conductor from handle() to the command pushed, the timing
// of the refinement timers, and offline rendering speed.
//
//   build-release/Benchmarks/EngineBenchmarks
//
// The built-in packs come from the build tree (TOBRIN_BUILT_IN_PACKS_DIR).

#include "TobrinKit/Engine/Audio/NullAudioBackend.h"
#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/RecordedMotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <mutex>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace tobrin {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::shared_ptr<const LoadedPack> builtInPack(const std::string& id) {
    static std::shared_ptr<const LoadedPack> pack =
        LoadedPack::load(PackInfo::read(std::filesystem::path(TOBRIN_BUILT_IN_PACKS_DIR) / id, true), 48000);
    return pack;
}

// A sensor replaying `seconds` of a resting machine (one report a
// millisecond), so the conductor measures and refines every key-down.
std::shared_ptr<ForceSensor> restingSensor(double seconds) {
    SensorRecording recording;
    const auto report = ForceSensor::encodeReport(ForceSensor::Acceleration{0, 0, 1});
    for (std::uint64_t ms = 0; ms < std::uint64_t(seconds * 1000); ++ms) recording.append(ms * 1'000'000, report);
    const auto path = std::filesystem::temp_directory_path() / ("tobrin-bench-" + std::to_string(getpid()) + ".replay");
    recording.write(path);
    // The file is read when the sensor starts; it is removed when the program ends.
    static struct Cleanup {
        std::vector<std::filesystem::path> files;
        ~Cleanup() {
            for (const auto& file : files) std::filesystem::remove(file);
        }
    } cleanup;
    cleanup.files.push_back(path);
    return std::make_shared<ForceSensor>(std::make_unique<RecordedMotionSource>(path));
}

// One key-down from handle() on this thread to the start command leaving the
// conductor's queue into the mixer ring (null device rendering meanwhile).
void BM_ConductorHandleToPush(benchmark::State& state) {
    const bool sensing = state.range(0) != 0;
    auto audio = std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
    Conductor conductor(audio, sensing ? restingSensor(120) : nullptr);
    std::atomic<std::uint64_t> starts{0};
    std::atomic<Clock::rep> pushedAt{0};
    Conductor::Diagnostics diagnostics;
    diagnostics.command = [&](const TBCommand& command, bool) {
        if (command.type != TB_COMMAND_START) return;
        pushedAt.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
        starts.fetch_add(1, std::memory_order_release);
    };
    conductor.setDiagnostics(diagnostics);
    conductor.setPack(builtInPack("cream"));
    EngineSettings settings;
    settings.forceSensing = sensing;
    settings.releaseSounds = false;
    conductor.apply(settings, true);
    conductor.barrier();
    std::this_thread::sleep_for(50ms); // some sensor history to search

    std::uint16_t code = 0;
    for (auto _ : state) {
        const auto before = starts.load(std::memory_order_acquire);
        const auto handled = Clock::now();
        conductor.handle(KeyEvent{code, KeyAction::down, MachTime::now()});
        while (starts.load(std::memory_order_acquire) == before) {
        }
        const auto cost = Clock::duration(pushedAt.load(std::memory_order_relaxed)) - handled.time_since_epoch();
        state.SetIterationTime(std::chrono::duration<double>(cost).count());
        code = std::uint16_t((code + 1) % 40);
        // Typing pace: leaves the null device time to drain the ring.
        if (code == 0) std::this_thread::sleep_for(6ms);
    }
    state.counters["dropped"] = double(audio->droppedCommands());
}
BENCHMARK(BM_ConductorHandleToPush)
    ->ArgName("sensing")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(4000)
    ->Unit(benchmark::kMicrosecond);

// How late the refinement timers fire after their 4, 10 and 16 ms deadlines:
// median and 99th percentile per pass, in microseconds, over 300 key-downs
// typed 25 ms apart.
void BM_RefinementTimerLateness(benchmark::State& state) {
    auto audio = std::make_shared<AudioOutput>(std::vector{NullAudioBackend::factory()}, "");
    Conductor conductor(audio, restingSensor(30));
    std::mutex lock;
    std::array<std::vector<double>, 3> lateness;
    Conductor::Diagnostics diagnostics;
    diagnostics.refinement = [&](int pass, Clock::duration late) {
        std::lock_guard guard(lock);
        lateness[std::size_t(pass)].push_back(std::chrono::duration<double, std::micro>(late).count());
    };
    conductor.setDiagnostics(diagnostics);
    conductor.setPack(builtInPack("cream"));
    EngineSettings settings;
    settings.releaseSounds = false;
    conductor.apply(settings, true);
    conductor.barrier();

    for (auto _ : state) {
        for (int i = 0; i < 300; ++i) {
            conductor.handle(KeyEvent{std::uint16_t(i % 40), KeyAction::down, MachTime::now()});
            std::this_thread::sleep_for(25ms);
        }
    }
    std::this_thread::sleep_for(50ms);
    conductor.barrier();
    std::lock_guard guard(lock);
    for (std::size_t pass = 0; pass < 3; ++pass) {
        auto& values = lateness[pass];
        if (values.empty()) continue;
        std::sort(values.begin(), values.end());
        const auto at = [&](double q) { return values[std::size_t(q * double(values.size() - 1))]; };
        const std::string name = std::to_string(int(Conductor::refineAtMs[pass])) + "ms";
        state.counters[name + "_p50_us"] = at(0.5);
        state.counters[name + "_p99_us"] = at(0.99);
        state.counters[name + "_max_us"] = values.back();
    }
}
BENCHMARK(BM_RefinementTimerLateness)->Iterations(1)->Unit(benchmark::kMillisecond);

// A 60-second typing performance rendered off line; "realtime" is how many
// seconds of audio are rendered per second of wall time.
void BM_OfflineRenderSixtySeconds(benchmark::State& state) {
    const auto pack = builtInPack("cream");
    std::string text;
    std::vector<ScriptedKey> script;
    while (script.empty() || script.back().time < 60.0) {
        text += "the quick brown fox jumps over the lazy dog, then types some more. ";
        script = OfflineRenderer::typingScript(text, 60, 11, [](int i, int) { return float(i % 7) * 0.5f; });
    }
    while (script.size() > 2 && script[script.size() - 2].time > 60.0) script.resize(script.size() - 2);
    const double tail = 1.0;
    const double seconds = script.back().time + tail;
    for (auto _ : state) {
        auto out = OfflineRenderer::render(*pack, script, EngineSettings(), tail, 48000);
        benchmark::DoNotOptimize(out.left.data());
    }
    state.counters["realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["keys"] = double(script.size());
}
BENCHMARK(BM_OfflineRenderSixtySeconds)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
} // namespace tobrin

BENCHMARK_MAIN();
