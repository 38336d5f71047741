#pragma once

// The motion sensor: turns accelerometer reports into impact magnitudes (g)
// with gravity and tilt removed, tracks the noise floor and keeps the last
// 4096 time-stamped magnitudes (about 4 s) for the engine to query.
//
// Thread contract:
// - ingest() runs on the motion source's thread (one caller at a time). It
//   alone touches the filter state (per-axis averages, noise estimate), so
//   that state needs no lock; it stores into the ring under the ring lock.
// - window(), samples(), noiseFloor(), lastSampleTime() may be called from any
//   thread; they hold the ring lock only to scan or copy.
// - start() and stop() may be called from any thread; they serialise on a
//   state mutex. stop() returns only after the source's thread has finished
//   its last ingest(), which is what makes resetting the filter there safe.
// - isRunning() and reportsReceived() are lock-free reads.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "TobrinKit/Force/MotionSource.h"

namespace tobrin {

// The strongest sample in a time window.
struct ForceWindow {
    float peak = 0;             // g
    std::uint64_t peakTime = 0; // host ticks; 0 when every sample was 0
    int samples = 0;            // samples in the window
    std::uint64_t latest = 0;   // time of the newest sample in the ring

    bool operator==(const ForceWindow&) const = default;
};

// One stored magnitude.
struct ForceSample {
    std::uint64_t time = 0; // host ticks
    float value = 0;        // g

    bool operator==(const ForceSample&) const = default;
};

class ForceSensor {
public:
    static constexpr int capacity = 4096;
    static constexpr std::size_t reportLength = 22;

    // Acceleration in g, decoded from a report.
    struct Acceleration {
        double x = 0, y = 0, z = 0;
    };

    // A sensor reading `source`; without a source it never starts, but
    // ingest() still works (recorded data, tests).
    explicit ForceSensor(std::unique_ptr<MotionSource> source);
    ~ForceSensor();
    ForceSensor(const ForceSensor&) = delete;
    ForceSensor& operator=(const ForceSensor&) = delete;

    // Whether this machine has a motion source (findMotionSource()).
    static bool isAvailable();

    // Starts streaming if not running; returns whether it runs afterwards.
    bool start();
    // Stops streaming. The ring and the noise floor are kept; the tilt
    // averages start afresh with the next report.
    void stop();
    bool isRunning() const { return running_.load(std::memory_order_acquire); }
    // Reports accepted (22 bytes) since creation.
    std::uint64_t reportsReceived() const { return reportsReceived_.load(std::memory_order_relaxed); }

    // The strongest sample with from ≤ time ≤ to (newest wins a tie), or none
    // when no sample lies in the window.
    std::optional<ForceWindow> window(std::uint64_t from, std::uint64_t to) const;
    // The samples with from ≤ time ≤ to, oldest first.
    std::vector<ForceSample> samples(std::uint64_t from, std::uint64_t to) const;
    // The published noise floor, g.
    float noiseFloor() const;
    // Time of the newest sample (0 before the first).
    std::uint64_t lastSampleTime() const;

    // Takes one report: any length but 22 bytes is ignored. Called by the
    // motion source's thread.
    void ingest(std::span<const std::uint8_t> report, std::uint64_t timestamp);

    // x, y, z as signed 16.16 fixed point at bytes 6, 10 and 14, little-endian;
    // none for a report that is not 22 bytes long.
    static std::optional<Acceleration> decodeReport(std::span<const std::uint8_t> report);
    // The report a device would send for an acceleration (header and tail
    // zero); values are rounded to 1/65536 g and saturate at the 32-bit range.
    static std::array<std::uint8_t, reportLength> encodeReport(Acceleration acceleration);

private:
    std::unique_ptr<MotionSource> source_;

    // Guarded by ringLock_.
    mutable std::mutex ringLock_;
    std::unique_ptr<std::uint64_t[]> times_;
    std::unique_ptr<float[]> values_;
    int writeIndex_ = 0;
    int filled_ = 0;
    float noise_ = 0.002f;
    std::uint64_t latestTime_ = 0;

    // Sensor thread only (and stop(), once that thread has ended).
    double dcX_ = 0, dcY_ = 0, dcZ_ = 0;
    bool primed_ = false;
    double noiseEstimate_ = 0.002;

    std::mutex stateLock_; // serialises start() and stop()
    std::atomic<bool> running_{false};
    std::atomic<std::uint64_t> reportsReceived_{0};
};

} // namespace tobrin
