#pragma once

// An IIO accelerometer read through its buffer: starting enables the x, y and z
// scan elements (and the time stamp channel, on the monotonic clock, where
// there is one), switches the buffer on and opens the character device;
// each scan read is decoded to g and encoded as the 22-byte report. Stopping
// closes the device and switches the buffer off. Scans are stamped with their
// time stamp channel when it runs on CLOCK_MONOTONIC (the clock of key
// events), else with the time they were read.
//
// Thread contract: as MotionSource.

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "TobrinKit/Force/Devices/DescriptorReader.h"
#include "TobrinKit/Force/Devices/IioScanElements.h"
#include "TobrinKit/Force/MotionSource.h"

namespace tobrin {

// One accelerometer as its sysfs folder describes it.
struct IioAccelerometer {
    std::filesystem::path folder; // /sys/bus/iio/devices/iio:deviceN
    std::filesystem::path node;   // /dev/iio:deviceN
    IioScanLayout layout;         // x, y, z and the time stamp if there is one
    std::size_t x = 0, y = 0, z = 0;
    std::optional<std::size_t> timestamp;

    // Reads the device at `folder`, its node under `devices` (/dev): none when
    // it is not an accelerometer with buffered x, y and z; IioError when its
    // scan elements are malformed.
    static std::optional<IioAccelerometer> read(const std::filesystem::path& folder,
                                                const std::filesystem::path& devices);
    // The acceleration in g of one record of `layout`.
    std::array<double, 3> acceleration(std::span<const std::uint8_t> record) const;
};

class IioMotionSource final : public MotionSource {
public:
    explicit IioMotionSource(IioAccelerometer device);
    // Reads scans from `fd` (owned; tests: a pipe) instead of the node; the
    // buffer is still switched through the folder.
    IioMotionSource(IioAccelerometer device, int fd);
    ~IioMotionSource() override;

    bool start(ReportHandler handler) override;
    void stop() override;
    std::string lastError() const override;

    const IioAccelerometer& device() const { return device_; }

private:
    bool switchOn(std::string& error);
    void switchOff();
    void take(std::span<const std::uint8_t> bytes, std::uint64_t arrival);

    IioAccelerometer device_;
    int fd_ = -1;
    bool ownsNode_ = true; // opens and closes device_.node itself
    bool running_ = false;
    bool stampsMonotonic_ = false;
    ReportHandler handler_;
    std::vector<std::uint8_t> pending_; // a scan split across reads (reading thread)
    DescriptorReader reader_;
    mutable std::mutex errorLock_;
    std::string lastError_;
};

} // namespace tobrin
