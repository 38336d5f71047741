// Packs from recordings: the hit detector and the whole slice of 60 s of
// stereo typing at 48 kHz (rendered with a built-in pack, with noise and hum;
// target for slice: 0.3 s on one core), and a build of a pack from three
// recordings of 20 s already in the cache (slicing, writing the takes twice,
// two demo renders and loudness measurements, the swap into place).
#include "TobrinKit/Building/Recorded/RecordedPackBuilder.h"
#include "TobrinKit/Building/Recorded/RecordingSlicer.h"
#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Packs/PackInfo.h"

#include "Support/TypingRecordings.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

namespace {

using namespace tobrin;
namespace fs = std::filesystem;

std::shared_ptr<const LoadedPack> cream() {
    static const auto pack =
        LoadedPack::load(PackInfo::read(fs::path(TOBRIN_BUILT_IN_PACKS_DIR) / "cream", true), 48000);
    return pack;
}

// 60 s: strokes 0.16 to 0.28 s apart, a few overlapping ones, cut at a minute.
const test::TypingRecording& minute() {
    static const test::TypingRecording recording = [] {
        test::TypingRecordingOptions options;
        options.keys = 270;
        options.spaceEvery = 7;
        auto rendered = test::renderTypingRecording(*cream(), 48000, options);
        rendered.left.resize(60 * 48000); // exactly a minute
        rendered.right.resize(60 * 48000);
        return rendered;
    }();
    return recording;
}

void Detect60sStereo(benchmark::State& state) {
    const auto& recording = minute();
    for (auto _ : state) {
        auto detection = RecordingSlicer::detect(recording.left, recording.right, 48000, {});
        benchmark::DoNotOptimize(detection);
    }
    state.counters["seconds"] = double(recording.left.size()) / 48000.0;
}
BENCHMARK(Detect60sStereo)->Unit(benchmark::kMillisecond);

void Slice60sStereo(benchmark::State& state) {
    const auto& recording = minute();
    std::size_t hits = 0;
    for (auto _ : state) {
        auto result = RecordingSlicer::slice(recording.left, recording.right, 48000, {});
        hits = result.hits.size();
        benchmark::DoNotOptimize(result);
    }
    state.counters["seconds"] = double(recording.left.size()) / 48000.0;
    state.counters["hits"] = double(hits);
}
BENCHMARK(Slice60sStereo)->Unit(benchmark::kMillisecond);

void BuildThreeSourcesFromCache(benchmark::State& state) {
    std::string pattern = (fs::temp_directory_path() / "tobrin-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    const fs::path folder = pattern;
    fs::create_directories(folder / "cache");
    PackRecipe recipe;
    recipe.id = "bench";
    recipe.name = "Bench";
    recipe.kind = "Recorded";
    recipe.summary = "Three recordings.";
    for (std::uint64_t seed : {1, 2, 3}) {
        test::TypingRecordingOptions options;
        options.keys = 85;
        options.spaceEvery = 7;
        options.seed = seed;
        const auto recording = test::renderTypingRecording(*cream(), 48000, options);
        // The cache's converted file: the builder neither downloads nor converts.
        WAVWriter::write(recording.left, std::span<const float>(recording.right), 48000,
                         folder / "cache" / (std::to_string(seed) + ".wav"));
        recipe.sources.push_back({std::int64_t(seed), "user", "Typing", "CC0", "file:///nowhere.ogg", {}, {}});
    }
    for (auto _ : state) RecordedPackBuilder::build(recipe, folder / "cache", folder / "packs" / "bench");
    fs::remove_all(folder);
}
BENCHMARK(BuildThreeSourcesFromCache)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
