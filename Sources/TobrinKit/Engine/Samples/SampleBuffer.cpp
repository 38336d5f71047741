// Decoded sounds: fixed blocks filled from a SoundReader.
#include "TobrinKit/Engine/Samples/SampleBuffer.h"

#include "TobrinKit/Packs/PackError.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

namespace tobrin {

namespace {

[[noreturn]] void fatal(const char* message) {
    std::fprintf(stderr, "Tobrin: %s\n", message);
    std::abort();
}

} // namespace

SampleBuffer::SampleBuffer(std::span<const float> left, std::optional<std::span<const float>> right, double sampleRate)
    : SampleBuffer(std::vector<float>(left.begin(), left.end()),
                   right ? std::vector<float>(right->begin(), right->end()) : std::vector<float>{}, !right,
                   sampleRate) {}

SampleBuffer::SampleBuffer(std::vector<float> left, std::vector<float> right, bool mono, double sampleRate)
    : leftStorage_(std::move(left)), rightStorage_(std::move(right)), frames_(leftStorage_.size()),
      sampleRate_(sampleRate) {
    if (!mono && rightStorage_.size() != leftStorage_.size()) fatal("SampleBuffer channels differ in length");
    // Room for at least one sample, so that even an empty sound has real
    // (non-null) blocks to point at.
    leftStorage_.reserve(1);
    leftData_ = leftStorage_.data();
    if (mono) {
        rightStorage_ = {};
        rightData_ = leftData_;
    } else {
        rightStorage_.reserve(1);
        rightData_ = rightStorage_.data();
    }
}

SampleBuffer::SampleBuffer(SampleBuffer&& other) noexcept
    : leftStorage_(std::move(other.leftStorage_)), rightStorage_(std::move(other.rightStorage_)),
      leftData_(std::exchange(other.leftData_, nullptr)), rightData_(std::exchange(other.rightData_, nullptr)),
      frames_(std::exchange(other.frames_, 0)), sampleRate_(other.sampleRate_) {}

SampleBuffer& SampleBuffer::operator=(SampleBuffer&& other) noexcept {
    if (this != &other) {
        leftStorage_ = std::move(other.leftStorage_);
        rightStorage_ = std::move(other.rightStorage_);
        leftData_ = std::exchange(other.leftData_, nullptr);
        rightData_ = std::exchange(other.rightData_, nullptr);
        frames_ = std::exchange(other.frames_, 0);
        sampleRate_ = other.sampleRate_;
    }
    return *this;
}

float SampleBuffer::peak() const {
    float peak = 0;
    for (std::size_t i = 0; i < frames_; ++i) peak = std::max(peak, std::fabs(leftData_[i]));
    if (!isMono()) {
        for (std::size_t i = 0; i < frames_; ++i) peak = std::max(peak, std::fabs(rightData_[i]));
    }
    return peak;
}

TBSample SampleBuffer::tbSample() const {
    if (frames_ > std::numeric_limits<std::uint32_t>::max()) fatal("sound too long for the mixer");
    return TBSample{leftData_, rightData_, static_cast<std::uint32_t>(frames_)};
}

SampleBuffer SampleBuffer::load(const std::filesystem::path& path, double sampleRate, std::size_t frameLimit) {
    SoundReader reader(path, sampleRate);
    return load(reader, frameLimit);
}

SampleBuffer SampleBuffer::load(SoundReader& reader, std::size_t frameLimit) {
    const bool mono = reader.isMono();
    std::vector<float> left, right;
    try {
        // Room for what the header announces, plus the converter's rounding,
        // so that the blocks are not regrown (and copied) while decoding.
        if (const auto announced = reader.announcedFrames()) {
            const std::size_t frames = std::min(*announced, frameLimit) + 64;
            left.reserve(frames);
            if (!mono) right.reserve(frames);
        }
    } catch (const std::bad_alloc&) {
        throw PackError::decode(reader.name(), "could not allocate buffer");
    }
    reader.read(
        [&](const float* chunkLeft, const float* chunkRight, std::size_t frames) {
            left.insert(left.end(), chunkLeft, chunkLeft + frames);
            if (!mono) right.insert(right.end(), chunkRight, chunkRight + frames);
        },
        frameLimit);
    // A header that announced far more than the file held leaves mostly
    // untouched room; what is kept is then small enough to copy.
    if (left.capacity() / 2 > left.size()) {
        left.shrink_to_fit();
        right.shrink_to_fit();
    }
    return SampleBuffer(std::move(left), std::move(right), mono, reader.sampleRate());
}

} // namespace tobrin
