// The key path's costs. From an XTEST key press sent to a private X server to
// the key monitor's handler call: median and 99th percentile over 1000 keys
// (press and release each), and the monitor thread's CPU time per event. And
// the evdev path's cost per key event: reading the records a keyboard sends
// for it (scan code, key, report) and turning them into the handler's call.
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Input/EvdevReader.h"
#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Input/X11/X11Keys.h"

#include "Support/PrivateXServer.h"

#include <benchmark/benchmark.h>
#include <linux/input.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

namespace tobrin {
namespace {

std::uint64_t threadCpuNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::uint64_t(now.tv_sec) * 1'000'000'000ULL + std::uint64_t(now.tv_nsec);
}

void BM_X11KeyPressToHandler(benchmark::State& state) {
    constexpr std::size_t keys = 1000;
    constexpr std::size_t events = 2 * keys;
    test::PrivateXServer server;
    test::FakeKeyboard keyboard(server.display());

    std::vector<std::uint64_t> heardAt(events), cpuAt(events);
    std::atomic<std::uint32_t> heard{0};
    KeyMonitor monitor(
        [&](const KeyEvent&) {
            const auto index = heard.load(std::memory_order_relaxed);
            heardAt[index] = MachTime::now();
            cpuAt[index] = threadCpuNanoseconds();
            heard.store(index + 1, std::memory_order_release);
            heard.notify_one();
        },
        {X11Keys::factory(server.display())}, "x11");
    if (!monitor.start()) {
        state.SkipWithError("the key monitor did not start");
        return;
    }

    std::vector<double> latencies;
    for (auto _ : state) {
        heard.store(0);
        latencies.clear();
        const std::uint16_t letters[] = {KEY_A, KEY_S, KEY_D, KEY_F, KEY_J, KEY_K, KEY_L, KEY_SEMICOLON};
        for (std::size_t i = 0; i < events; ++i) {
            const auto code = letters[(i / 2) % std::size(letters)];
            const std::uint64_t sent = MachTime::now();
            i % 2 ? keyboard.release(code) : keyboard.press(code);
            for (auto count = heard.load(std::memory_order_acquire); count <= i;
                 count = heard.load(std::memory_order_acquire))
                heard.wait(count);
            latencies.push_back(MachTime::delta(heardAt[i], sent));
        }
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
    state.counters["cpu_us_per_event"] = double(cpuAt[events - 1] - cpuAt[0]) / double(events - 1) / 1000.0;
    state.SetItemsProcessed(std::int64_t(state.iterations() * events));
}
BENCHMARK(BM_X11KeyPressToHandler)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_EvdevRecordsToHandler(benchmark::State& state) {
    constexpr std::size_t batch = 512; // key events per read, inside a pipe's 64 KiB buffer
    int ends[2];
    if (::pipe(ends) != 0) {
        state.SkipWithError("pipe failed");
        return;
    }
    std::vector<input_event> records;
    for (std::size_t i = 0; i < batch; ++i) {
        const std::uint16_t code = std::uint16_t(KEY_Q + i / 2 % 10);
        records.push_back({{}, EV_MSC, MSC_SCAN, 0x70014});
        records.push_back({{}, EV_KEY, code, i % 2 ? 0 : 1});
        records.push_back({{}, EV_SYN, SYN_REPORT, 0});
    }
    std::uint64_t calls = 0;
    KeyStream stream([&](const KeyEvent& event) { calls += event.code; });
    EvdevReader reader(ends[0]);
    const auto bytes = records.size() * sizeof(input_event);
    for (auto _ : state) {
        state.PauseTiming();
        if (::write(ends[1], records.data(), bytes) != ssize_t(bytes)) state.SkipWithError("write failed");
        state.ResumeTiming();
        reader.readAvailable(stream, MachTime::now());
    }
    benchmark::DoNotOptimize(calls);
    ::close(ends[1]);
    state.SetItemsProcessed(std::int64_t(state.iterations() * batch));
}
BENCHMARK(BM_EvdevRecordsToHandler);

} // namespace
} // namespace tobrin

BENCHMARK_MAIN();
