#pragma once

// Where motion-sensor reports come from: a device (hidraw, IIO) or a recorded
// stream. A source delivers each (report, host time stamp) pair to a handler
// on a thread of its own; the force sensor above it never knows which kind
// it reads.
//
// Thread contract: start() and stop() are called by one owner at a time (the
// force sensor serialises them). The handler runs on the source's thread,
// one call at a time, between a successful start() and the return of stop().

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace tobrin {

class MotionSource {
public:
    // A report in the accelerometer's wire format (22 bytes; other lengths
    // are passed on as they came and dropped by the sensor) and its time in
    // host ticks (CLOCK_MONOTONIC nanoseconds, the clock of key events).
    using ReportHandler = std::function<void(std::span<const std::uint8_t> report, std::uint64_t timestamp)>;

    virtual ~MotionSource() = default;

    // Opens the source and starts delivering to `handler` from the source's
    // own thread ("Tobrin.ForceSensor"). Returns once the source is installed:
    // true when it delivers, false when it could not be opened (then nothing
    // is delivered and lastError() says why). Not called while running.
    virtual bool start(ReportHandler handler) = 0;

    // Stops delivery and closes the source. When it returns the handler is not
    // running and is never called again. Harmless when not running.
    virtual void stop() = 0;

    // Why the last start() failed, as a user would read it; empty otherwise.
    virtual std::string lastError() const = 0;
};

// Kinds of motion device, registered at start-up by the leaf that reads
// them (MotionDevices::add()); each finder returns a source for this machine's
// device, or none.
namespace MotionSources {
struct Finder {
    std::string name;
    std::function<std::unique_ptr<MotionSource>()> find;
};
// Adds a finder, or replaces the one of the same name.
void add(Finder finder);
} // namespace MotionSources

// The motion source of this machine, or none: the first device a registered
// finder finds, in the order they were added, else a recorded stream named by
// the environment variable TOBRIN_SENSOR_REPLAY (tests, demos, machines
// without a sensor; the file is only read when the source starts).
std::unique_ptr<MotionSource> findMotionSource();

} // namespace tobrin
