// Cost of loading a pack of 60 takes (20 alpha, 10 for each other group; 0.3 s
// stereo 16-bit WAVs), once from 48 kHz files (decoding only) and once from
// 44.1 kHz files (decoding and very-high-quality conversion to 48 kHz). The
// files sit in the page cache after the first iteration, as they do when a
// user switches between packs.
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

using namespace tobrin;

// A click-like take: decaying noise, different for every take.
void writeTake(const std::filesystem::path& path, int sampleRate, std::uint64_t seed) {
    const auto frames = static_cast<std::size_t>(0.3 * sampleRate);
    SplitMix64 random{seed};
    std::vector<short> interleaved(frames * 2);
    for (std::size_t i = 0; i < frames; ++i) {
        const double envelope = std::exp(-static_cast<double>(i) / (0.03 * sampleRate));
        interleaved[2 * i] = static_cast<short>(12000 * envelope * random.signedUnit());
        interleaved[2 * i + 1] = static_cast<short>(12000 * envelope * random.signedUnit());
    }
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file) std::abort();
    sf_writef_short(file, interleaved.data(), static_cast<sf_count_t>(frames));
    sf_close(file);
}

// Writes the pack once per rate into a scratch folder removed at exit.
class BenchmarkPack {
public:
    explicit BenchmarkPack(int sampleRate) {
        std::string pattern = (std::filesystem::temp_directory_path() / "tobrin-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        folder_ = pattern;
        PackManifest manifest;
        manifest.id = "bench";
        manifest.name = "Bench";
        manifest.kind = "benchmark";
        const char* tiers[] = {"soft", "medium", "hard", "slam"};
        std::uint64_t seed = 1;
        for (KeyGroup group : allKeyGroups) {
            const int takes = group == KeyGroup::alpha ? 20 : 10;
            for (int take = 0; take < takes; ++take) {
                const std::string path = std::string(rawValue(group)) + "/" + std::to_string(take) + ".wav";
                std::filesystem::create_directories(folder_ / rawValue(group));
                writeTake(folder_ / path, sampleRate, seed++);
                manifest.groups[std::string(rawValue(group))].down[tiers[take % 4]].push_back(path);
            }
        }
        manifest.write(folder_ / "pack.json");
        info_ = PackInfo{"bench", "Bench", "benchmark", std::nullopt, folder_, false};
    }
    ~BenchmarkPack() { std::filesystem::remove_all(folder_); }
    const PackInfo& info() const { return info_; }

private:
    std::filesystem::path folder_;
    PackInfo info_;
};

void loadPack(benchmark::State& state, int fileRate) {
    const BenchmarkPack pack(fileRate);
    for (auto _ : state) {
        auto loaded = LoadedPack::load(pack.info(), 48000);
        if (loaded->sampleCount() != 60) state.SkipWithError("not 60 takes");
        benchmark::DoNotOptimize(loaded);
    }
    state.SetItemsProcessed(state.iterations() * 60);
}

void BM_LoadPackFrom48kHzFiles(benchmark::State& state) { loadPack(state, 48000); }
void BM_LoadPackFrom44kHzFiles(benchmark::State& state) { loadPack(state, 44100); }

} // namespace

// Targets: under 30 ms at 48 kHz, under 120 ms from 44.1 kHz, on one core.
BENCHMARK(BM_LoadPackFrom48kHzFiles)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LoadPackFrom44kHzFiles)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
