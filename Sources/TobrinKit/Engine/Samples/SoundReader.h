#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

namespace tobrin {

// Decodes a sound file (libsndfile) a chunk at a time, converted to one
// sample rate (libsoxr, very high quality) and bounded: what a pack's take
// or a measured file passes through on its way in. Memory stays a few chunks
// whatever the file's length, so callers keep only what they need of the
// sound. Channels beyond the second are ignored. Off the audio thread only;
// one reader per thread.
class SoundReader {
public:
    // The file could not be opened or is not audio the library knows;
    // what() names the file and gives the system's or the library's reason.
    class OpenError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // The sound would be longer than the frame limit passed to read().
    class TooLong : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Every sample delivered lies within ±sampleLimit (12 dB over full
    // scale), and NaN or infinity becomes 0: a float file may hold anything,
    // and a value beyond float range overflows the mixer's interpolation.
    // Real recordings and the mixer's headroom (tier gains up to 2.56 on top
    // of a take near full scale) stay far inside it.
    static constexpr float sampleLimit = 4.0f;

    // One chunk at the output rate: `frames` samples of each channel; for a
    // mono sound `right` is `left`.
    using Sink = std::function<void(const float* left, const float* right, std::size_t frames)>;

    // Opens a regular file by path. A FIFO, device or folder is refused
    // before the library could block on it. Throws OpenError.
    SoundReader(const std::filesystem::path& path, double sampleRate);

    // Reads from an open descriptor, which stays the caller's and must stay
    // open while reading; `name` is the file as messages name it.
    SoundReader(int descriptor, const std::filesystem::path& name, double sampleRate);

    ~SoundReader();
    SoundReader(const SoundReader&) = delete;
    SoundReader& operator=(const SoundReader&) = delete;

    bool isMono() const { return mono_; }
    double fileRate() const { return fileRate_; }
    double sampleRate() const { return sampleRate_; }
    const std::filesystem::path& name() const { return name_; }

    // The frames at the output rate that the header announces (after
    // conversion, give or take the converter's rounding), or nothing when the
    // format does not say. Headers can lie: read() enforces its limit anyway.
    std::optional<std::size_t> announcedFrames() const { return announcedFrames_; }

    // Delivers the whole sound at the output rate, in order, in chunks of at
    // most chunkFrames. Throws TooLong as soon as more than `frameLimit`
    // frames would be delivered (before decoding anything when the header
    // already says so), PackError::decode for a read or conversion failure.
    // Call once.
    void read(const Sink& sink, std::size_t frameLimit = std::numeric_limits<std::size_t>::max());

    static constexpr std::size_t chunkFrames = 8192;

private:
    void open(int descriptor);

    struct Library;
    std::unique_ptr<Library> library_;
    std::filesystem::path name_;
    int ownedDescriptor_ = -1;
    bool mono_ = true;
    int channels_ = 0;
    double fileRate_ = 0;
    double sampleRate_ = 0;
    std::optional<std::size_t> announcedFrames_;
};

} // namespace tobrin
