// Decoding with libsndfile and rate conversion with libsoxr.
#include "TobrinKit/Engine/Samples/SampleBuffer.h"

#include "TobrinKit/Packs/PackError.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace tobrin {

namespace {

[[noreturn]] void fatal(const char* message) {
    std::fprintf(stderr, "Tobrin: %s\n", message);
    std::abort();
}

struct SndfileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SndfileHandle = std::unique_ptr<SNDFILE, SndfileCloser>;

// Samples read per call, over all channels. A file may declare up to 1024
// channels; scaling the frames per call down keeps the scratch buffer small
// for them instead of allocating tens of megabytes for a tiny file.
constexpr std::size_t readChunkSamples = 32768;
// Capacity reserved up front is capped so that a header claiming billions of
// frames costs nothing until the frames actually arrive.
constexpr std::size_t maxReservedFrames = std::size_t{1} << 22;

// A float file can hold NaN or infinity; one such sample would poison the
// whole mix, and the conversion filter would smear it over its neighbours.
float finite(float sample) { return std::isfinite(sample) ? sample : 0.0f; }

struct Decoded {
    std::vector<float> left;
    std::vector<float> right;
    bool mono = true;
};

// Reads at most `maxFrames` frames (and notes whether the file had more).
Decoded readFrames(SNDFILE* file, const SF_INFO& info, std::size_t maxFrames, bool& moreThanMax) {
    const auto channels = static_cast<std::size_t>(info.channels);
    Decoded decoded;
    decoded.mono = channels < 2;
    const std::size_t expected = info.frames > 0 ? static_cast<std::size_t>(info.frames) : 0;
    const std::size_t reserve = std::min({expected, maxFrames, maxReservedFrames});
    decoded.left.reserve(reserve);
    if (!decoded.mono) decoded.right.reserve(reserve);

    const std::size_t chunkFrames = std::max<std::size_t>(1, readChunkSamples / channels);
    std::vector<float> scratch(chunkFrames * channels);
    moreThanMax = false;
    while (true) {
        const sf_count_t got = sf_readf_float(file, scratch.data(), static_cast<sf_count_t>(chunkFrames));
        if (got <= 0) break;
        const auto count = static_cast<std::size_t>(got);
        std::size_t take = count;
        if (decoded.left.size() + count > maxFrames) {
            take = maxFrames - decoded.left.size();
            moreThanMax = true;
        }
        for (std::size_t frame = 0; frame < take; ++frame) {
            decoded.left.push_back(finite(scratch[frame * channels]));
            if (!decoded.mono) decoded.right.push_back(finite(scratch[frame * channels + 1]));
        }
        if (moreThanMax) break;
    }
    return decoded;
}

// A soxr converter kept per thread for the last rate pair and channel count.
// Designing a very-high-quality filter costs about a fifth of converting a
// short take, and a pack converts dozens of takes at one rate pair; cleared
// between files, the converter gives exactly what a fresh one would.
class Converter {
public:
    ~Converter() { reset(); }

    // Empty on success, else soxr's description.
    std::string prepare(double fromRate, double toRate, unsigned channels) {
        if (handle_ && fromRate == fromRate_ && toRate == toRate_ && channels == channels_) {
            soxr_clear(handle_);
            return {};
        }
        reset();
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_S, SOXR_FLOAT32_S);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
        // One thread, so the result never depends on the machine.
        const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
        soxr_error_t error = nullptr;
        handle_ = soxr_create(fromRate, toRate, channels, &error, &io, &quality, &runtime);
        if (error || !handle_) {
            reset();
            return error ? error : "could not create the rate converter";
        }
        fromRate_ = fromRate;
        toRate_ = toRate;
        channels_ = channels;
        return {};
    }

    // Converts all of `in` and flushes the converter's tail into `out`.
    std::string convert(const float* const* in, std::size_t inFrames, float** out, std::size_t capacity,
                        std::size_t& outFrames) {
        std::size_t done = 0;
        soxr_error_t error = soxr_process(handle_, in, inFrames, nullptr, out, capacity, &done);
        outFrames = done;
        // End of input: soxr hands out the filter's tail until none is left.
        while (!error && outFrames < capacity) {
            float* rest[2] = {out[0] + outFrames, channels_ > 1 ? out[1] + outFrames : nullptr};
            error = soxr_process(handle_, nullptr, 0, nullptr, rest, capacity - outFrames, &done);
            if (error || done == 0) break;
            outFrames += done;
        }
        if (error) {
            std::string message = error;
            reset();
            return message;
        }
        return {};
    }

private:
    void reset() {
        if (handle_) soxr_delete(handle_);
        handle_ = nullptr;
    }

    soxr_t handle_ = nullptr;
    double fromRate_ = 0;
    double toRate_ = 0;
    unsigned channels_ = 0;
};

// Converts both channels at once with soxr's very-high-quality recipe.
std::string resample(Decoded& decoded, double fromRate, double toRate, std::size_t frameLimit, bool& tooLong) {
    const std::size_t inFrames = decoded.left.size();
    const double estimate = static_cast<double>(inFrames) * toRate / fromRate;
    tooLong = false;
    // Anything over the limit by more than soxr's rounding can be refused
    // before allocating for it.
    if (estimate > static_cast<double>(frameLimit) + 2.0) {
        tooLong = true;
        return {};
    }
    // The mixer counts frames in 32 bits; a longer sound has no use.
    if (estimate + 64.0 > static_cast<double>(std::numeric_limits<std::uint32_t>::max())) throw std::bad_alloc();
    const auto capacity = static_cast<std::size_t>(estimate + 64.0);
    const unsigned channels = decoded.mono ? 1 : 2;
    std::vector<float> outLeft(capacity);
    std::vector<float> outRight(decoded.mono ? 0 : capacity);

    const float* in[2] = {decoded.left.data(), decoded.mono ? nullptr : decoded.right.data()};
    float* out[2] = {outLeft.data(), decoded.mono ? nullptr : outRight.data()};
    thread_local Converter converter;
    if (std::string error = converter.prepare(fromRate, toRate, channels); !error.empty()) return error;
    std::size_t outFrames = 0;
    if (std::string error = converter.convert(in, inFrames, out, capacity, outFrames); !error.empty()) return error;
    if (outFrames > frameLimit) {
        tooLong = true;
        return {};
    }
    outLeft.resize(outFrames);
    if (!decoded.mono) outRight.resize(outFrames);
    decoded.left = std::move(outLeft);
    decoded.right = std::move(outRight);
    return {};
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
    // libsndfile would block forever on a FIFO and read nonsense from a
    // device; only regular files (or links to them) are audio files here.
    std::error_code statusError;
    const auto status = std::filesystem::status(path, statusError);
    if (!statusError && std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        throw OpenError("Not a regular file: " + path.string());
    }

    SF_INFO info{};
    SndfileHandle file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) throw OpenError(sf_strerror(nullptr));

    const double fileRate = info.samplerate;
    if (!(sampleRate > 0) || !std::isfinite(sampleRate) || !(fileRate > 0) || info.channels < 1) {
        throw PackError::decode(path, "unsupported format");
    }
    // Integer formats come in scaled to [-1, 1); float formats as stored.
    sf_command(file.get(), SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);

    try {
        const bool convert = fileRate != sampleRate;
        // Without conversion the limit applies to the frames read; with it,
        // read only as much input as could still fit once converted.
        std::size_t readLimit = frameLimit;
        if (convert) {
            const double inputLimit = static_cast<double>(frameLimit) * fileRate / sampleRate + 64.0;
            if (inputLimit < static_cast<double>(readLimit)) readLimit = static_cast<std::size_t>(inputLimit);
        }
        bool truncated = false;
        Decoded decoded = readFrames(file.get(), info, readLimit, truncated);
        if (truncated) throw TooLong("more than " + std::to_string(frameLimit) + " frames");
        if (sf_error(file.get()) != SF_ERR_NO_ERROR) throw PackError::decode(path, sf_strerror(file.get()));
        file.reset();

        if (convert && !decoded.left.empty()) {
            bool tooLong = false;
            std::string error = resample(decoded, fileRate, sampleRate, frameLimit, tooLong);
            if (!error.empty()) throw PackError::decode(path, error);
            if (tooLong) throw TooLong("more than " + std::to_string(frameLimit) + " frames");
        }
        return SampleBuffer(std::move(decoded.left), std::move(decoded.right), decoded.mono, sampleRate);
    } catch (const std::bad_alloc&) {
        throw PackError::decode(path, "could not allocate buffer");
    }
}

} // namespace tobrin
