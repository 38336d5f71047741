#pragma once

// The laptop accelerometer as the kernel's hidraw interface exposes it: each
// read of the device node is one input report (the 22-byte format, report id
// included when the device numbers its reports), stamped with the host time it
// arrived. Opening the node switches the sensor on; closing it, off.
//
// Thread contract: as MotionSource.

#include <filesystem>
#include <mutex>
#include <string>

#include "TobrinKit/Force/Devices/DescriptorReader.h"
#include "TobrinKit/Force/MotionSource.h"

namespace tobrin {

class HidrawMotionSource final : public MotionSource {
public:
    // Opens `node` (/dev/hidrawN) on each start.
    explicit HidrawMotionSource(std::filesystem::path node);
    // Reads `fd`, which it owns and closes (tests: a socket pair, which keeps
    // report boundaries as the device does). Starts once.
    static std::unique_ptr<HidrawMotionSource> fromDescriptor(int fd);
    ~HidrawMotionSource() override;

    bool start(ReportHandler handler) override;
    void stop() override;
    std::string lastError() const override;

    const std::filesystem::path& node() const { return node_; }

private:
    std::filesystem::path node_;
    int fd_ = -1;
    bool running_ = false;
    DescriptorReader reader_;
    mutable std::mutex errorLock_;
    std::string lastError_;
};

} // namespace tobrin
