// Cost of synthesizing the five starter packs (300 takes): rendering alone and
// the whole generation with its WAV files and manifests, on one worker and on
// two. Wall time is what counts (the build waits for it); the items are takes,
// so items_per_second gives the per-take cost.
#include "TobrinKit/Synth/KeySynth.h"
#include "TobrinKit/Synth/PackGenerator.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include <unistd.h>

namespace {

using namespace tobrin;

constexpr int takesPerPack = 60;

void RenderStarterPacks(benchmark::State& state) {
    const unsigned threads = unsigned(state.range(0));
    for (auto _ : state) {
        for (const SynthProfile& profile : SynthProfile::starterPacks()) {
            benchmark::DoNotOptimize(PackGenerator::renderTakes(profile, threads));
        }
    }
    state.SetItemsProcessed(state.iterations() * 5 * takesPerPack);
}
BENCHMARK(RenderStarterPacks)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

void GenerateStarterPacks(benchmark::State& state) {
    const unsigned threads = unsigned(state.range(0));
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("tobrin-synth-bench-" + std::to_string(::getpid()));
    for (auto _ : state) {
        for (const SynthProfile& profile : SynthProfile::starterPacks()) {
            PackGenerator::generate(profile, folder, threads);
        }
    }
    std::filesystem::remove_all(folder);
    state.SetItemsProcessed(state.iterations() * 5 * takesPerPack);
}
BENCHMARK(GenerateStarterPacks)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

// The longest take: the typewriter's Return with its bell, 1.56 s.
void RenderTypewriterReturn(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(KeySynth::render(KeyGroup::enter, Tier::slam, 0, SynthProfile::typewriter()));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RenderTypewriterReturn)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
