// Cost of the real-time mixer: one 256-frame stereo block with 32 voices of four
// stereo layers each, every layer read at a non-unity rate (interpolating), and
// the cost of one push.
#include "TobrinMixer.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <vector>

namespace {

constexpr std::uint32_t blockFrames = 256;
constexpr double blockBudgetSeconds = 256.0 / 48000.0; // 5.33 ms

// Eight distinct two-second stereo takes, so the voices read different memory
// as the layers of a real pack do.
struct Takes {
    std::vector<std::vector<float>> channels;
    Takes() {
        for (int t = 0; t < 16; ++t) {
            std::vector<float> samples(96000);
            for (std::size_t i = 0; i < samples.size(); ++i) {
                samples[i] = 0.05f * float(std::sin(0.001 * double(i) * (t + 1)));
            }
            channels.push_back(std::move(samples));
        }
    }
    TBSample take(int index) const {
        const auto& left = channels[std::size_t(2 * (index % 8))];
        const auto& right = channels[std::size_t(2 * (index % 8) + 1)];
        return TBSample{left.data(), right.data(), std::uint32_t(left.size())};
    }
};

// The voices' rates: 0.97 + 0.002 × voice by default, a typist's pitch
// variation around 1 that is never exactly 1.
struct Rates {
    float first = 0.97f;
    float step = 0.002f;
};

TBCommand voiceStart(const Takes& takes, int v, std::uint32_t tag, Rates rates) {
    TBCommand command{};
    command.type = TB_COMMAND_START;
    command.tag = tag;
    for (int l = 0; l < 4; ++l) {
        command.layers[l] = takes.take(v + l);
        command.weights[l] = 0.1f + 0.05f * float(l);
    }
    command.pan = float(v) / 16.0f - 1.0f;
    command.rate = rates.first + rates.step * float(v);
    return command;
}

// Starts 32 voices one block apart, as typing does, so their read positions
// differ. (Started in the same block, all voices would read the same offsets of
// page-aligned buffers, and the 256 streams would fight over the same cache
// sets: a load no typist produces.)
void startThirtyTwoVoices(TBMixer* mixer, const Takes& takes, std::uint32_t& tag, Rates rates = {}) {
    std::vector<float> left(blockFrames), right(blockFrames);
    for (int v = 0; v < 32; ++v) {
        const TBCommand command = voiceStart(takes, v, ++tag, rates);
        tb_mixer_push(mixer, &command);
        tb_mixer_render(mixer, left.data(), right.data(), blockFrames);
    }
}

void renderThirtyTwoVoices(benchmark::State& state, Rates rates) {
    const Takes takes;
    TBMixer* mixer = tb_mixer_create(48000, 4);
    std::vector<float> left(blockFrames), right(blockFrames);
    std::uint32_t tag = 0;
    startThirtyTwoVoices(mixer, takes, tag, rates);
    for (auto _ : state) {
        tb_mixer_render(mixer, left.data(), right.data(), blockFrames);
        benchmark::DoNotOptimize(left.data());
        benchmark::DoNotOptimize(right.data());
        if (tb_mixer_active_voices(mixer) < 32) {
            state.PauseTiming();
            startThirtyTwoVoices(mixer, takes, tag, rates);
            state.ResumeTiming();
        }
    }
    // Seconds of wall time per block as a share of the block's real-time budget.
    state.counters["budget"] = benchmark::Counter(blockBudgetSeconds, benchmark::Counter::kIsIterationInvariantRate |
                                                                          benchmark::Counter::kInvert);
    state.counters["voices"] = double(tb_mixer_active_voices(mixer));
    tb_mixer_destroy(mixer);
}

void BM_RenderBlock32Voices4Layers(benchmark::State& state) { renderThirtyTwoVoices(state, {}); }
BENCHMARK(BM_RenderBlock32Voices4Layers);

// The same at other rates, which read their samples differently: all at
// exactly 1 (no interpolation), all between 1.4 and 1.46, and all between 2.2
// and 2.26 (beyond the span of the AVX2 path).
void BM_RenderBlock32VoicesUnityRate(benchmark::State& state) { renderThirtyTwoVoices(state, {1.0f, 0.0f}); }
BENCHMARK(BM_RenderBlock32VoicesUnityRate);
void BM_RenderBlock32VoicesFast(benchmark::State& state) { renderThirtyTwoVoices(state, {1.4f, 0.002f}); }
BENCHMARK(BM_RenderBlock32VoicesFast);
void BM_RenderBlock32VoicesVeryFast(benchmark::State& state) { renderThirtyTwoVoices(state, {2.2f, 0.002f}); }
BENCHMARK(BM_RenderBlock32VoicesVeryFast);

// The same block while every voice crossfades its weights (the refinement case).
void BM_RenderBlock32VoicesRamping(benchmark::State& state) {
    const Takes takes;
    TBMixer* mixer = tb_mixer_create(48000, 4);
    std::vector<float> left(blockFrames), right(blockFrames);
    std::uint32_t tag = 0;
    startThirtyTwoVoices(mixer, takes, tag);
    float weight = 0.2f;
    for (auto _ : state) {
        state.PauseTiming();
        if (tb_mixer_active_voices(mixer) < 32) startThirtyTwoVoices(mixer, takes, tag);
        weight = weight > 0.3f ? 0.2f : weight + 0.01f;
        for (std::uint32_t t = tag - 31; t <= tag; ++t) {
            TBCommand change{};
            change.type = TB_COMMAND_SET_WEIGHTS;
            change.tag = t;
            for (float& w : change.weights) w = weight;
            tb_mixer_push(mixer, &change);
        }
        state.ResumeTiming();
        tb_mixer_render(mixer, left.data(), right.data(), blockFrames);
        benchmark::DoNotOptimize(left.data());
    }
    state.counters["budget"] = benchmark::Counter(blockBudgetSeconds, benchmark::Counter::kIsIterationInvariantRate |
                                                                          benchmark::Counter::kInvert);
    tb_mixer_destroy(mixer);
}
BENCHMARK(BM_RenderBlock32VoicesRamping);

// One push of a full command. Timed by hand around 512 pushes, so that draining
// the ring between batches is not counted.
void BM_Push(benchmark::State& state) {
    TBMixer* mixer = tb_mixer_create(48000, 4);
    const Takes takes;
    TBCommand command{};
    command.type = TB_COMMAND_START;
    for (int l = 0; l < 4; ++l) command.layers[l] = takes.take(l);
    float scratch[1];
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        for (std::uint32_t i = 0; i < 512; ++i) {
            command.tag = i + 1;
            benchmark::DoNotOptimize(tb_mixer_push(mixer, &command));
        }
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
        // Apply the starts and end the voices again, off the clock.
        TBCommand release{};
        release.type = TB_COMMAND_RELEASE_ALL;
        tb_mixer_render(mixer, scratch, nullptr, 0);
        tb_mixer_push(mixer, &release);
        tb_mixer_render(mixer, scratch, nullptr, 0);
    }
    state.SetItemsProcessed(state.iterations() * 512);
    tb_mixer_destroy(mixer);
}
BENCHMARK(BM_Push)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
