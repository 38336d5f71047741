#pragma once

// A motion source that replays a recorded stream (docs/SensorReplayFormat.md)
// so the whole force path runs without a sensor: tests, demos, machines
// without one. start() reads the file and starts a thread that delivers each
// report at its recorded offset from the start, stamped with the host time
// it stands for: startTime() + offset / speed. A restart replays from the
// beginning. Delivery ends with the recording; the source stays "running"
// (like a device that has gone quiet) until stop().
//
// Thread contract: start() and stop() from one owner at a time (see
// MotionSource); startTime(), isFinished(), waitUntilFinished() and
// lastError() from any thread.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "TobrinKit/Force/MotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"

namespace tobrin {

class RecordedMotionSource final : public MotionSource {
public:
    struct Options {
        // 1 = the recorded pace, 2 = twice as fast, and so on. 0 (or less)
        // delivers everything at once; the time stamps then keep the
        // recorded spacing (startTime() + offset) and so run ahead of the
        // clock: restarting such a replay before its last stamp has passed
        // puts older stamps after newer ones in the sensor's ring.
        double speed = 1.0;
    };

    // At the recorded pace. (Two constructors rather than a default argument:
    // a nested type's member defaults are not usable in its owner's declarations.)
    explicit RecordedMotionSource(std::filesystem::path path);
    RecordedMotionSource(std::filesystem::path path, Options options);
    ~RecordedMotionSource() override;

    bool start(ReportHandler handler) override;
    void stop() override;
    std::string lastError() const override;

    // The host time that offset 0 of the recording maps to in the current (or
    // last) run; 0 before the first start.
    std::uint64_t startTime() const { return startTime_.load(std::memory_order_acquire); }
    // True once every report of the current run has been delivered.
    bool isFinished() const;
    // Waits until the current run has delivered everything; false on
    // time-out, or when stop() ended the run first.
    bool waitUntilFinished(std::chrono::milliseconds timeout) const;

    const std::filesystem::path& path() const { return path_; }

private:
    void run(SensorRecording recording, ReportHandler handler);

    const std::filesystem::path path_;
    const Options options_;

    mutable std::mutex mutex_;
    mutable std::condition_variable wake_; // stop requests and completion
    bool stopRequested_ = false;
    bool finished_ = false;
    bool active_ = false; // between start() and stop()
    std::string lastError_;
    std::thread thread_;
    std::atomic<std::uint64_t> startTime_{0};
};

} // namespace tobrin
