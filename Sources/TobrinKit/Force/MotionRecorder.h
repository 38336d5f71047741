#pragma once

// Records any motion source's stream in the replay format
// (docs/SensorReplayFormat.md) while passing it on unchanged: a user with a
// sensor sends the file, and replaying it reproduces what they felt. It is a
// motion source itself, wrapped around the real one.
//
// Thread contract: as MotionSource; count() and error() from any thread.

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "TobrinKit/Force/MotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"

namespace tobrin {

class MotionRecorder final : public MotionSource {
public:
    // Writes to `file` (replaced at each start) what `source` delivers.
    MotionRecorder(std::unique_ptr<MotionSource> source, std::filesystem::path file);
    ~MotionRecorder() override;

    // Fails when the file cannot be created (lastError() says why) or the
    // source does not start.
    bool start(ReportHandler handler) override;
    // Stops the source, then finishes the file.
    void stop() override;
    std::string lastError() const override;

    // Reports written in the current (or last) recording.
    std::size_t count() const { return count_.load(std::memory_order_relaxed); }
    // Why the recording stopped early (a full disk), or why finishing the
    // file failed; the stream is passed on regardless.
    std::optional<std::string> writeError() const;

private:
    std::unique_ptr<MotionSource> source_;
    const std::filesystem::path file_;
    std::unique_ptr<SensorRecordingWriter> writer_; // the source's thread, between start and stop
    std::atomic<std::size_t> count_{0};
    mutable std::mutex lock_;
    std::string lastError_;
    std::optional<std::string> writeError_;
};

} // namespace tobrin
