#pragma once

#include "TobrinKit/Engine/Samples/SoundReader.h"

#include "TobrinMixer.h"

#include <cstddef>
#include <filesystem>
#include <limits>
#include <optional>
#include <span>
#include <vector>

namespace tobrin {

// One decoded sound: non-interleaved 32-bit float at the engine's rate. The
// channel blocks are allocated once and never move or change afterwards, so
// the real-time mixer reads them through raw pointers (tbSample()) without any
// locking; whoever hands those pointers to the mixer keeps the buffer alive
// until the mixer is done with them. A mono sound's right() is left()'s
// pointer, not a copy. Move-only: moving hands the same blocks to a new owner.
class SampleBuffer {
public:
    // The file could not be opened; what() names it and gives the reason.
    using OpenError = SoundReader::OpenError;
    // The decoded sound would be longer than the frame limit passed to load().
    using TooLong = SoundReader::TooLong;

    // Copies the samples. Without `right` the sound is mono. A `right` of
    // another length than `left` is a programming error and aborts.
    SampleBuffer(std::span<const float> left, std::optional<std::span<const float>> right, double sampleRate);

    SampleBuffer(SampleBuffer&& other) noexcept;
    SampleBuffer& operator=(SampleBuffer&& other) noexcept;
    SampleBuffer(const SampleBuffer&) = delete;
    SampleBuffer& operator=(const SampleBuffer&) = delete;

    // Decodes an audio file and converts it to `sampleRate` (SoundReader:
    // libsndfile, libsoxr at very high quality, samples bounded to ±4).
    // Channels beyond the second are ignored. A file that cannot be opened
    // throws OpenError; every other failure throws PackError::decode. With
    // `frameLimit`, a result longer than that many frames throws TooLong,
    // refused from the header when it says so, else without decoding more
    // than it has to. Memory peaks at the result plus a few chunks.
    static SampleBuffer load(const std::filesystem::path& path, double sampleRate,
                             std::size_t frameLimit = std::numeric_limits<std::size_t>::max());
    static SampleBuffer load(SoundReader& reader, std::size_t frameLimit = std::numeric_limits<std::size_t>::max());

    const float* left() const { return leftData_; }
    const float* right() const { return rightData_; }
    std::size_t frames() const { return frames_; }
    double sampleRate() const { return sampleRate_; }
    bool isMono() const { return rightData_ == leftData_; }

    // Largest absolute sample over both channels (0 when empty).
    float peak() const;
    // frames / sampleRate, in seconds.
    double duration() const { return static_cast<double>(frames_) / sampleRate_; }
    // Bytes of decoded audio held: one block for mono, two for stereo.
    std::size_t memoryBytes() const { return frames_ * sizeof(float) * (isMono() ? 1 : 2); }

    // The view the mixer takes. Aborts if the sound has more frames than a
    // TBSample can count.
    TBSample tbSample() const;

private:
    SampleBuffer(std::vector<float> left, std::vector<float> right, bool mono, double sampleRate);

    // The blocks. A vector's storage stays put while it is neither resized
    // nor reassigned, and moving the vector hands over the same storage.
    std::vector<float> leftStorage_;
    std::vector<float> rightStorage_;
    const float* leftData_ = nullptr;
    const float* rightData_ = nullptr;
    std::size_t frames_ = 0;
    double sampleRate_ = 0;
};

} // namespace tobrin
