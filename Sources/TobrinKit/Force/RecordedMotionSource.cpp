// Replaying a recorded sensor stream on a thread of its own.
#include "TobrinKit/Force/RecordedMotionSource.h"

#include "TobrinKit/Engine/Core/MachTime.h"

#include <pthread.h>

#include <cmath>
#include <limits>
#include <utility>

namespace tobrin {

RecordedMotionSource::RecordedMotionSource(std::filesystem::path path)
    : RecordedMotionSource(std::move(path), Options()) {}

RecordedMotionSource::RecordedMotionSource(std::filesystem::path path, Options options)
    : path_(std::move(path)), options_(options) {}

RecordedMotionSource::~RecordedMotionSource() { stop(); }

bool RecordedMotionSource::start(ReportHandler handler) {
    stop();
    SensorRecording recording;
    try {
        recording = SensorRecording::read(path_);
    } catch (const SensorRecordingError& error) {
        std::lock_guard lock(mutex_);
        lastError_ = error.what();
        return false;
    }
    {
        std::lock_guard lock(mutex_);
        lastError_.clear();
        stopRequested_ = false;
        finished_ = false;
        active_ = true;
    }
    startTime_.store(MachTime::now(), std::memory_order_release);
    thread_ = std::thread(&RecordedMotionSource::run, this, std::move(recording), std::move(handler));
    return true;
}

void RecordedMotionSource::stop() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
    }
    wake_.notify_all();
    thread_.join();
    std::lock_guard lock(mutex_);
    active_ = false;
}

std::string RecordedMotionSource::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

bool RecordedMotionSource::isFinished() const {
    std::lock_guard lock(mutex_);
    return finished_;
}

bool RecordedMotionSource::waitUntilFinished(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    if (!active_) return finished_;
    wake_.wait_for(lock, timeout, [&] { return finished_ || stopRequested_; });
    return finished_;
}

void RecordedMotionSource::run(SensorRecording recording, ReportHandler handler) {
    pthread_setname_np(pthread_self(), "Tobrin.ForceSen"); // 15 characters at most
    const std::uint64_t base = startTime();
    const bool paced = options_.speed > 0;

    // Stamps stay on the steady clock's signed 64-bit nanosecond line.
    const double room = double(std::numeric_limits<std::int64_t>::max() - std::int64_t(base));
    for (std::size_t i = 0; i < recording.size(); ++i) {
        const double scaled = paced ? double(recording.offset(i)) / options_.speed : double(recording.offset(i));
        std::unique_lock lock(mutex_);
        if (!(scaled < room)) {
            // Slowed down past the end of the clock: due never, so the replay
            // waits for stop() like a device that has gone quiet.
            wake_.wait(lock, [&] { return stopRequested_; });
            return;
        }
        const std::uint64_t timestamp = base + static_cast<std::uint64_t>(std::llround(scaled));
        if (paced) {
            // Host ticks are CLOCK_MONOTONIC nanoseconds, the steady clock's time line.
            const auto due = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(timestamp));
            wake_.wait_until(lock, due, [&] { return stopRequested_; });
        }
        if (stopRequested_) return;
        lock.unlock();
        // Stamped with the time the report stands for, as a device stamps its
        // capture time, even if this thread was scheduled late.
        handler(recording.report(i), timestamp);
    }
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
    }
    wake_.notify_all();
}

} // namespace tobrin
