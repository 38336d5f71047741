#pragma once

#include "TobrinMixer.h"

#include <cstddef>
#include <filesystem>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
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
    // The audio library could not open the file; what() is its own message, unchanged.
    class OpenError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // The decoded sound would be longer than the frame limit passed to load().
    class TooLong : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Copies the samples. Without `right` the sound is mono. A `right` of
    // another length than `left` is a programming error and aborts.
    SampleBuffer(std::span<const float> left, std::optional<std::span<const float>> right, double sampleRate);

    SampleBuffer(SampleBuffer&& other) noexcept;
    SampleBuffer& operator=(SampleBuffer&& other) noexcept;
    SampleBuffer(const SampleBuffer&) = delete;
    SampleBuffer& operator=(const SampleBuffer&) = delete;

    // Decodes an audio file (libsndfile) and converts it to `sampleRate`
    // (libsoxr, very high quality). Channels beyond the second are ignored.
    // A file that cannot be opened throws OpenError; every other failure
    // throws PackError::decode. With `frameLimit`, a result longer than that
    // many frames throws TooLong, without decoding more than it has to.
    static SampleBuffer load(const std::filesystem::path& path, double sampleRate,
                             std::size_t frameLimit = std::numeric_limits<std::size_t>::max());

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
