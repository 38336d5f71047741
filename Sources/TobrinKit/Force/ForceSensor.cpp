// Report decoding, filtering and the time-stamped ring of the motion sensor.
#include "TobrinKit/Force/ForceSensor.h"

#include <algorithm>
#include <cmath>

namespace tobrin {

namespace {

constexpr std::size_t axisOffsets[3] = {6, 10, 14};

std::int32_t readInt32LE(std::span<const std::uint8_t> bytes, std::size_t offset) {
    const std::uint32_t raw = std::uint32_t(bytes[offset]) | std::uint32_t(bytes[offset + 1]) << 8 |
                              std::uint32_t(bytes[offset + 2]) << 16 | std::uint32_t(bytes[offset + 3]) << 24;
    return static_cast<std::int32_t>(raw);
}

void writeInt32LE(std::span<std::uint8_t> bytes, std::size_t offset, std::int32_t value) {
    const auto raw = static_cast<std::uint32_t>(value);
    for (std::size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<std::uint8_t>(raw >> (8 * i));
}

std::int32_t toFixed(double g) {
    const double scaled = std::round(g * 65536.0);
    if (std::isnan(scaled)) return 0;
    return static_cast<std::int32_t>(std::clamp(scaled, double(INT32_MIN), double(INT32_MAX)));
}

} // namespace

ForceSensor::ForceSensor(std::unique_ptr<MotionSource> source)
    : source_(std::move(source)), times_(new std::uint64_t[capacity]()), values_(new float[capacity]()) {}

ForceSensor::~ForceSensor() { stop(); }

bool ForceSensor::isAvailable() { return findMotionSource() != nullptr; }

bool ForceSensor::start() {
    std::lock_guard state(stateLock_);
    if (running_.load(std::memory_order_relaxed)) return true;
    if (!source_) return false;
    const bool started = source_->start(
        [this](std::span<const std::uint8_t> report, std::uint64_t timestamp) { ingest(report, timestamp); });
    running_.store(started, std::memory_order_release);
    return started;
}

void ForceSensor::stop() {
    std::lock_guard state(stateLock_);
    if (!running_.load(std::memory_order_relaxed)) return;
    source_->stop();
    // The source's thread has ended: no ingest() runs concurrently with this.
    primed_ = false;
    running_.store(false, std::memory_order_release);
}

std::optional<ForceSensor::Acceleration> ForceSensor::decodeReport(std::span<const std::uint8_t> report) {
    if (report.size() != reportLength) return std::nullopt;
    return Acceleration{readInt32LE(report, axisOffsets[0]) / 65536.0, readInt32LE(report, axisOffsets[1]) / 65536.0,
                        readInt32LE(report, axisOffsets[2]) / 65536.0};
}

std::array<std::uint8_t, ForceSensor::reportLength> ForceSensor::encodeReport(Acceleration acceleration) {
    std::array<std::uint8_t, reportLength> report{};
    writeInt32LE(report, axisOffsets[0], toFixed(acceleration.x));
    writeInt32LE(report, axisOffsets[1], toFixed(acceleration.y));
    writeInt32LE(report, axisOffsets[2], toFixed(acceleration.z));
    return report;
}

void ForceSensor::ingest(std::span<const std::uint8_t> report, std::uint64_t timestamp) {
    const auto decoded = decodeReport(report);
    if (!decoded) return;
    const auto [x, y, z] = *decoded;

    // The slow per-axis average is gravity plus tilt; what is left is the impact.
    if (!primed_) {
        primed_ = true;
        dcX_ = x;
        dcY_ = y;
        dcZ_ = z;
    }
    dcX_ += (x - dcX_) * 0.05;
    dcY_ += (y - dcY_) * 0.05;
    dcZ_ += (z - dcZ_) * 0.05;
    const double magnitude = std::sqrt((x - dcX_) * (x - dcX_) + (y - dcY_) * (y - dcY_) + (z - dcZ_) * (z - dcZ_));

    // Impacts (four times the noise or more) must not raise the noise floor.
    if (noiseEstimate_ < 1e-5 || magnitude < 4.0 * noiseEstimate_) {
        noiseEstimate_ += (magnitude - noiseEstimate_) * 0.002;
    }

    std::lock_guard ring(ringLock_);
    times_[writeIndex_] = timestamp;
    values_[writeIndex_] = static_cast<float>(magnitude);
    writeIndex_ = (writeIndex_ + 1) % capacity;
    filled_ = std::min(filled_ + 1, capacity);
    noise_ = static_cast<float>(noiseEstimate_);
    latestTime_ = timestamp;
    reportsReceived_.fetch_add(1, std::memory_order_relaxed);
}

std::optional<ForceWindow> ForceSensor::window(std::uint64_t from, std::uint64_t to) const {
    std::lock_guard ring(ringLock_);
    ForceWindow result;
    int index = writeIndex_;
    for (int scanned = 0; scanned < filled_; ++scanned) {
        index = (index + capacity - 1) % capacity;
        const std::uint64_t time = times_[index];
        if (time < from) break;
        if (time > to) continue;
        ++result.samples;
        // Strictly larger only: among equal maxima the newest (seen first) wins.
        if (values_[index] > result.peak) {
            result.peak = values_[index];
            result.peakTime = time;
        }
    }
    if (result.samples == 0) return std::nullopt;
    result.latest = latestTime_;
    return result;
}

std::vector<ForceSample> ForceSensor::samples(std::uint64_t from, std::uint64_t to) const {
    std::vector<ForceSample> result;
    {
        std::lock_guard ring(ringLock_);
        int index = writeIndex_;
        for (int scanned = 0; scanned < filled_; ++scanned) {
            index = (index + capacity - 1) % capacity;
            if (times_[index] < from) break;
            if (times_[index] > to) continue;
            result.push_back({times_[index], values_[index]});
        }
    }
    std::reverse(result.begin(), result.end());
    return result;
}

float ForceSensor::noiseFloor() const {
    std::lock_guard ring(ringLock_);
    return noise_;
}

std::uint64_t ForceSensor::lastSampleTime() const {
    std::lock_guard ring(ringLock_);
    return latestTime_;
}

} // namespace tobrin
