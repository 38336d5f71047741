// How soon the microphone watch reports a recording: from the moment a
// recorder (parec, pw-record) is started in another process to onChange(true),
// on a private PulseAudio and a private PipeWire (Tests/Support/sound-servers).
// One repetition is one recording; the median is the figure to quote.
#include "TobrinKit/Mic/MicMonitor.h"
#include "TobrinKit/Mic/Pulse/PulseMicWatch.h"

#include "Support/MicRecorders.h"
#include "Support/SoundServers.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>

namespace tobrin {
namespace {

using Clock = std::chrono::steady_clock;

void BM_MicRecorderToInUse(benchmark::State& state) {
    const bool pipeWire = state.range(0) == 1;
    test::PrivateSoundServer server(pipeWire ? test::SoundServerKind::PipeWire : test::SoundServerKind::PulseAudio);
    std::mutex lock;
    std::condition_variable changed;
    std::optional<bool> last;
    Clock::time_point reportedAt;
    MicMonitor monitor(makePulseMicWatch());
    // Only how soon "in use" comes is measured; "free" may come quickly.
    monitor.setReleaseDelay(std::chrono::milliseconds(20));
    monitor.setOnChange([&](bool inUse) {
        std::lock_guard guard(lock);
        last = inUse;
        reportedAt = Clock::now();
        changed.notify_all();
    });
    monitor.start();
    auto reported = [&](bool inUse) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(5), [&] { return last == inUse; });
    };
    if (!reported(false)) return state.SkipWithError("no first report");
    for (auto _ : state) {
        const auto started = Clock::now();
        test::Recorder recorder(pipeWire ? "pw-record" : "parec", "tobrin-test-source", server.folder());
        if (!reported(true)) return state.SkipWithError("the recording was not reported");
        state.SetIterationTime(std::chrono::duration<double>(reportedAt - started).count());
        recorder.stop();
        if (!reported(false)) return state.SkipWithError("the recording's end was not reported");
    }
}
BENCHMARK(BM_MicRecorderToInUse)
    ->ArgName("pipewire")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(25)
    ->ReportAggregatesOnly(true)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->ComputeStatistics("max", [](const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); });

} // namespace
} // namespace tobrin

BENCHMARK_MAIN();
