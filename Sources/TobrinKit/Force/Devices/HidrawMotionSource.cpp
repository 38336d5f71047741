// Reading the accelerometer's input reports from hidraw.
#include "TobrinKit/Force/Devices/HidrawMotionSource.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tobrin {

HidrawMotionSource::HidrawMotionSource(std::filesystem::path node) : node_(std::move(node)) {}

std::unique_ptr<HidrawMotionSource> HidrawMotionSource::fromDescriptor(int fd) {
    auto source = std::make_unique<HidrawMotionSource>(std::filesystem::path());
    source->fd_ = fd;
    return source;
}

HidrawMotionSource::~HidrawMotionSource() {
    stop();
    if (fd_ >= 0) ::close(fd_);
}

bool HidrawMotionSource::start(ReportHandler handler) {
    if (running_) return true;
    std::string error;
    if (fd_ < 0 && !node_.empty()) {
        fd_ = ::open(node_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ < 0) error = "Couldn't open " + node_.string() + ": " + std::strerror(errno);
    } else if (fd_ < 0) {
        error = "the motion sensor's descriptor was closed";
    }
    if (error.empty() && reader_.start(
                             fd_,
                             [handler = std::move(handler)](std::span<const std::uint8_t> report,
                                                            std::uint64_t arrival) { handler(report, arrival); },
                             error)) {
        running_ = true;
        std::lock_guard guard(errorLock_);
        lastError_.clear();
        return true;
    }
    if (fd_ >= 0 && !node_.empty()) ::close(fd_), fd_ = -1;
    std::lock_guard guard(errorLock_);
    lastError_ = error;
    return false;
}

void HidrawMotionSource::stop() {
    if (!running_) return;
    reader_.stop();
    running_ = false;
    // Closing the node is what switches the sensor off; a descriptor that was
    // handed over is spent.
    ::close(fd_);
    fd_ = -1;
}

std::string HidrawMotionSource::lastError() const {
    std::lock_guard guard(errorLock_);
    return lastError_;
}

} // namespace tobrin
