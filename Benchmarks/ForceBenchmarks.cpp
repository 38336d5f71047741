// Per-item costs of the force path: one sensor report, one window query as
// the conductor makes it (26 ms of a full ring), the classifier's per-stroke
// work and the voicing of one stroke.
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Force/ForceClassifier.h"
#include "TobrinKit/Force/ForceSensor.h"

#include <benchmark/benchmark.h>

namespace tobrin {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;

// A sensor whose ring is full of 1 kHz samples with a tap every 200 ms.
void fill(ForceSensor& sensor) {
    for (std::uint64_t i = 0; i < ForceSensor::capacity; ++i) {
        const double x = i % 200 == 0 ? 0.04 : 0.0005 * double(i % 7);
        sensor.ingest(ForceSensor::encodeReport({x, 0, 1}), i * millisecond);
    }
}

void BM_SensorIngest(benchmark::State& state) {
    ForceSensor sensor(nullptr);
    std::uint64_t time = 0;
    const auto rest = ForceSensor::encodeReport({0.001, -0.002, 1.0});
    const auto tap = ForceSensor::encodeReport({0.05, 0.01, 1.02});
    for (auto _ : state) {
        sensor.ingest((time & 127) == 0 ? tap : rest, time);
        time += millisecond;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SensorIngest);

void BM_SensorWindowOfAKeyDown(benchmark::State& state) {
    ForceSensor sensor(nullptr);
    fill(sensor);
    const std::uint64_t key = (ForceSensor::capacity - 20) * millisecond;
    for (auto _ : state) benchmark::DoNotOptimize(sensor.window(key - 12 * millisecond, key + 14 * millisecond));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SensorWindowOfAKeyDown);

void BM_SensorSamplesOfOneSecond(benchmark::State& state) {
    ForceSensor sensor(nullptr);
    fill(sensor);
    const std::uint64_t end = (ForceSensor::capacity - 1) * millisecond;
    for (auto _ : state) benchmark::DoNotOptimize(sensor.samples(end - 1000 * millisecond, end));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SensorSamplesOfOneSecond);

void BM_ClassifierStroke(benchmark::State& state) {
    ForceClassifier classifier;
    float peak = 0.01f;
    for (auto _ : state) {
        const float relative = classifier.relative(peak, 0.002f);
        benchmark::DoNotOptimize(ForceClassifier::tierPosition(relative));
        classifier.record(peak);
        peak = peak > 0.06f ? 0.01f : peak * 1.07f;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClassifierStroke);

void BM_VoicingStroke(benchmark::State& state) {
    const float gains[] = {0.6f, 1.0f, 1.6f, 2.5f};
    EngineSettings settings;
    std::uint16_t code = 0;
    float position = 0;
    for (auto _ : state) {
        TBCommand command{};
        command.rate = Voicing::pitchFactor(code);
        command.pan = Voicing::pan(code, settings);
        Voicing::setWeights(command, Voicing::weights(position, 1.3f, gains, true, 1.02f));
        benchmark::DoNotOptimize(command);
        code = static_cast<std::uint16_t>((code + 1) & 127);
        position = position > 3 ? 0 : position + 0.37f;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_VoicingStroke);

} // namespace
} // namespace tobrin

BENCHMARK_MAIN();
