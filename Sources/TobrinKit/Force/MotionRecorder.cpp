// Recording a motion source's stream while passing it on.
#include "TobrinKit/Force/MotionRecorder.h"

namespace tobrin {

MotionRecorder::MotionRecorder(std::unique_ptr<MotionSource> source, std::filesystem::path file)
    : source_(std::move(source)), file_(std::move(file)) {}

MotionRecorder::~MotionRecorder() { stop(); }

bool MotionRecorder::start(ReportHandler handler) {
    try {
        writer_ = std::make_unique<SensorRecordingWriter>(file_);
    } catch (const SensorRecordingError& error) {
        std::lock_guard guard(lock_);
        lastError_ = error.what();
        return false;
    }
    count_.store(0);
    {
        std::lock_guard guard(lock_);
        writeError_.reset();
    }
    const bool started = source_ && source_->start([this, handler = std::move(handler)](
                                                       std::span<const std::uint8_t> report, std::uint64_t timestamp) {
        if (writer_) {
            try {
                writer_->append(report, timestamp);
                count_.fetch_add(1, std::memory_order_relaxed);
            } catch (const std::exception& error) {
                // The stream goes on; a report the format cannot hold is left out.
                std::lock_guard guard(lock_);
                if (!writeError_) writeError_ = error.what();
            }
        }
        handler(report, timestamp);
    });
    std::lock_guard guard(lock_);
    if (started) {
        lastError_.clear();
        return true;
    }
    lastError_ = source_ ? source_->lastError() : "no motion source to record";
    writer_.reset();
    return false;
}

void MotionRecorder::stop() {
    if (!writer_) return;
    if (source_) source_->stop();
    try {
        writer_->close();
    } catch (const SensorRecordingError& error) {
        std::lock_guard guard(lock_);
        if (!writeError_) writeError_ = error.what();
    }
    writer_.reset();
}

std::string MotionRecorder::lastError() const {
    std::lock_guard guard(lock_);
    return lastError_;
}

std::optional<std::string> MotionRecorder::writeError() const {
    std::lock_guard guard(lock_);
    return writeError_;
}

} // namespace tobrin
