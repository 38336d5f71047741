// Integrated loudness of 60 s of stereo at 48 kHz: ours against libebur128 on
// the same signal, each taking the samples as it is given them (ours two
// channel arrays, libebur128 interleaved frames).
#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <benchmark/benchmark.h>
#include <ebur128.h>

#include <cmath>
#include <vector>

namespace {

using namespace tobrin;

constexpr std::size_t frames = 60 * 48000;

// Noise with a slow level swell, so both gates have work to do.
struct Signal {
    std::vector<float> left, right, interleaved;
    Signal() : left(frames), right(frames), interleaved(2 * frames) {
        SplitMix64 rng(60);
        for (std::size_t i = 0; i < frames; ++i) {
            const double level = 0.3 * (1.1 + std::sin(double(i) / 48000.0));
            left[i] = float(level * rng.signedUnit());
            right[i] = float(level * rng.signedUnit());
            interleaved[2 * i] = left[i];
            interleaved[2 * i + 1] = right[i];
        }
    }
};

const Signal& signal() {
    static const Signal instance;
    return instance;
}

void LoudnessIntegrated60sStereo(benchmark::State& state) {
    const Signal& s = signal();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Loudness::integrated(s.left, std::span<const float>(s.right), 48000));
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(frames));
}
BENCHMARK(LoudnessIntegrated60sStereo)->Unit(benchmark::kMillisecond);

void Libebur128Integrated60sStereo(benchmark::State& state) {
    const Signal& s = signal();
    for (auto _ : state) {
        ebur128_state* meter = ebur128_init(2, 48000, EBUR128_MODE_I);
        ebur128_add_frames_float(meter, s.interleaved.data(), frames);
        double loudness = 0;
        ebur128_loudness_global(meter, &loudness);
        benchmark::DoNotOptimize(loudness);
        ebur128_destroy(&meter);
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(frames));
}
BENCHMARK(Libebur128Integrated60sStereo)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
