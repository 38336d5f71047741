#include "TobrinKit/Engine/Audio/NullAudioBackend.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cmath>

namespace tobrin {
namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
}

void sleepUntil(std::int64_t deadline) {
    timespec when{};
    when.tv_sec = time_t(deadline / nanosecondsPerSecond);
    when.tv_nsec = long(deadline % nanosecondsPerSecond);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr) == EINTR) {
    }
}

} // namespace

NullAudioBackend::NullAudioBackend(const Format& format, const Callbacks& callbacks)
    : format_(format), callbacks_(callbacks) {
    if (format_.bufferFrames == 0) format_.bufferFrames = 256;
    if (!(format_.sampleRate > 0)) format_.sampleRate = 48000;
    left_.assign(format_.bufferFrames, 0.0f);
    right_.assign(format_.bufferFrames, 0.0f);
}

NullAudioBackend::~NullAudioBackend() { pause(); }

bool NullAudioBackend::start(std::string&) {
    if (thread_.joinable()) return true;
    running_.store(true, std::memory_order_release);
    thread_ = std::thread([this] { run(); });
    return true;
}

void NullAudioBackend::pause() {
    running_.store(false, std::memory_order_release);
    if (thread_.joinable()) thread_.join();
}

bool NullAudioBackend::isRunning() const { return running_.load(std::memory_order_acquire); }

void NullAudioBackend::run() {
    pthread_setname_np(pthread_self(), "Tobrin.Audio");
    float* channels[2] = {left_.data(), right_.data()};
    const std::uint32_t channelCount = format_.channels >= 2 ? 2 : 1;
    const double nanosecondsPerFrame = double(nanosecondsPerSecond) / format_.sampleRate;

    // Deadlines are computed from the frame count since `origin` rather than
    // accumulated, so rounding never drifts the pace.
    std::int64_t origin = monotonicNanoseconds();
    std::uint64_t frames = 0;
    while (running_.load(std::memory_order_acquire)) {
        if (callbacks_.render) callbacks_.render(callbacks_.context, channels, channelCount, format_.bufferFrames);
        blocks_.fetch_add(1, std::memory_order_relaxed);
        frames += format_.bufferFrames;
        std::int64_t deadline = origin + std::llround(double(frames) * nanosecondsPerFrame);
        const std::int64_t now = monotonicNanoseconds();
        // A stall of more than eight blocks (a suspended machine, a debugger)
        // restarts the pace instead of rendering the missed time in a burst.
        if (now - deadline > std::llround(8.0 * format_.bufferFrames * nanosecondsPerFrame)) {
            origin = now;
            frames = 0;
            deadline = now;
        }
        sleepUntil(deadline);
    }
}

AudioBackendFactory NullAudioBackend::factory() {
    return AudioBackendFactory{name, [] { return true; },
                               [](const Format& format, const Callbacks& callbacks) -> std::unique_ptr<AudioBackend> {
                                   return std::make_unique<NullAudioBackend>(format, callbacks);
                               }};
}

} // namespace tobrin
