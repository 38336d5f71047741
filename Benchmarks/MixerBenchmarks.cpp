#include "TobrinMixer.h"
#include <benchmark/benchmark.h>
static void BM_Create(benchmark::State& state) { for (auto _ : state) tb_mixer_destroy(tb_mixer_create(48000, 4)); }
BENCHMARK(BM_Create);
BENCHMARK_MAIN();
