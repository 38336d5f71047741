// Chunked decoding with libsndfile and rate conversion with libsoxr.
#include "TobrinKit/Engine/Samples/SoundReader.h"

#include "TobrinKit/Packs/PackError.h"

#include <sndfile.h>
#include <soxr.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

// Samples read per call, over all channels. A file may declare up to 1024
// channels; scaling the frames per call down keeps the scratch buffer small
// for them instead of allocating tens of megabytes for a tiny file.
constexpr std::size_t readChunkSamples = 32768;

float bounded(float sample) {
    if (!std::isfinite(sample)) return 0.0f;
    return std::clamp(sample, -SoundReader::sampleLimit, SoundReader::sampleLimit);
}

SoundReader::OpenError openError(const std::filesystem::path& name, const std::string& reason) {
    return SoundReader::OpenError(PackError::decode(name, reason).description());
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
        out_[0].resize(SoundReader::chunkFrames);
        out_[1].resize(channels > 1 ? SoundReader::chunkFrames : 0);
        return {};
    }

    // Converts `frames` frames of `in` (null: the end of the input, which
    // flushes the filter's tail) and hands every converted piece to `emit`.
    template <typename Emit>
    std::string process(const float* const* in, std::size_t frames, const Emit& emit) {
        std::size_t consumed = 0;
        while (true) {
            const float* from[2] = {in ? in[0] + consumed : nullptr, in && channels_ > 1 ? in[1] + consumed : nullptr};
            float* to[2] = {out_[0].data(), channels_ > 1 ? out_[1].data() : nullptr};
            std::size_t taken = 0;
            std::size_t made = 0;
            const soxr_error_t error = soxr_process(handle_, in ? from : nullptr, in ? frames - consumed : 0, &taken,
                                                    to, SoundReader::chunkFrames, &made);
            if (error) {
                std::string message = error;
                reset();
                return message;
            }
            consumed += taken;
            if (made > 0) emit(to[0], channels_ > 1 ? to[1] : to[0], made);
            // Input is done once all of it is taken and the output had room
            // to spare; the tail is done once nothing more comes out.
            if (in ? consumed == frames && made < SoundReader::chunkFrames : made == 0) return {};
        }
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
    std::vector<float> out_[2];
};

} // namespace

struct SoundReader::Library {
    SNDFILE* file = nullptr;
    ~Library() {
        if (file) sf_close(file);
    }
};

SoundReader::SoundReader(const std::filesystem::path& path, double sampleRate) : name_(path), sampleRate_(sampleRate) {
    // Non-blocking, so that a FIFO is refused below instead of waiting for a writer.
    ownedDescriptor_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (ownedDescriptor_ < 0) throw openError(name_, std::strerror(errno));
    try {
        open(ownedDescriptor_);
    } catch (...) {
        ::close(ownedDescriptor_);
        throw;
    }
}

SoundReader::SoundReader(int descriptor, const std::filesystem::path& name, double sampleRate)
    : name_(name), sampleRate_(sampleRate) {
    open(descriptor);
}

SoundReader::~SoundReader() {
    library_.reset();
    if (ownedDescriptor_ >= 0) ::close(ownedDescriptor_);
}

void SoundReader::open(int descriptor) {
    // libsndfile would block forever on a FIFO and read nonsense from a
    // device; only regular files are audio files here.
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) throw openError(name_, std::strerror(errno));
    if (!S_ISREG(status.st_mode)) throw openError(name_, "not a regular file");

    library_ = std::make_unique<Library>();
    SF_INFO info{};
    library_->file = sf_open_fd(descriptor, SFM_READ, &info, SF_FALSE);
    if (!library_->file) throw openError(name_, sf_strerror(nullptr));

    fileRate_ = info.samplerate;
    channels_ = info.channels;
    mono_ = info.channels < 2;
    if (!(sampleRate_ > 0) || !std::isfinite(sampleRate_) || !(fileRate_ > 0) || info.channels < 1) {
        throw PackError::decode(name_, "unsupported format");
    }
    // Integer formats come in scaled to [-1, 1); float formats as stored.
    sf_command(library_->file, SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    // SF_COUNT_MAX (or 0 for some streams) means the header does not say.
    if (info.frames > 0 && info.frames < SF_COUNT_MAX) {
        const double frames = static_cast<double>(info.frames) * sampleRate_ / fileRate_;
        if (frames < 9.0e18) announcedFrames_ = static_cast<std::size_t>(std::ceil(frames));
    }
}

void SoundReader::read(const Sink& sink, std::size_t frameLimit) {
    const bool convert = fileRate_ != sampleRate_;
    // The converter rounds the length by a frame or two either way, so only a
    // header beyond that is refused before decoding; the exact count decides.
    const std::size_t slack = convert ? 2 : 0;
    const auto tooLong = [&] { return TooLong("more than " + std::to_string(frameLimit) + " frames"); };
    if (announcedFrames_ && *announcedFrames_ > frameLimit && *announcedFrames_ - frameLimit > slack) throw tooLong();

    try {
        std::size_t delivered = 0;
        const auto deliver = [&](const float* left, const float* right, std::size_t frames) {
            if (frames > frameLimit - delivered) throw tooLong();
            delivered += frames;
            sink(left, right, frames);
        };

        thread_local Converter converter;
        if (convert) {
            if (std::string error = converter.prepare(fileRate_, sampleRate_, mono_ ? 1 : 2); !error.empty()) {
                throw PackError::decode(name_, error);
            }
        }
        // Conversion overshoots a little at steep edges; the bound holds for
        // what is delivered, so converted chunks are bounded again.
        std::vector<float> boundedLeft, boundedRight;
        const auto deliverConverted = [&](const float* left, const float* right, std::size_t frames) {
            boundedLeft.assign(left, left + frames);
            for (float& sample : boundedLeft) sample = bounded(sample);
            if (right != left) {
                boundedRight.assign(right, right + frames);
                for (float& sample : boundedRight) sample = bounded(sample);
            }
            deliver(boundedLeft.data(), right != left ? boundedRight.data() : boundedLeft.data(), frames);
        };

        const auto channels = static_cast<std::size_t>(channels_);
        const std::size_t readFrames = std::clamp<std::size_t>(readChunkSamples / channels, 1, chunkFrames);
        std::vector<float> scratch(readFrames * channels);
        std::vector<float> left(readFrames), right(mono_ ? 0 : readFrames);
        bool readAny = false;
        while (true) {
            const sf_count_t got = sf_readf_float(library_->file, scratch.data(), static_cast<sf_count_t>(readFrames));
            if (got <= 0) break;
            readAny = true;
            const auto count = static_cast<std::size_t>(got);
            for (std::size_t frame = 0; frame < count; ++frame) {
                left[frame] = bounded(scratch[frame * channels]);
                if (!mono_) right[frame] = bounded(scratch[frame * channels + 1]);
            }
            const float* const in[2] = {left.data(), mono_ ? left.data() : right.data()};
            if (!convert) {
                deliver(in[0], in[1], count);
            } else if (std::string error = converter.process(in, count, deliverConverted); !error.empty()) {
                throw PackError::decode(name_, error);
            }
        }
        if (sf_error(library_->file) != SF_ERR_NO_ERROR) throw PackError::decode(name_, sf_strerror(library_->file));
        // An empty file has no tail to flush.
        if (convert && readAny) {
            if (std::string error = converter.process(nullptr, 0, deliverConverted); !error.empty()) {
                throw PackError::decode(name_, error);
            }
        }
    } catch (const std::bad_alloc&) {
        throw PackError::decode(name_, "could not allocate buffer");
    }
}

} // namespace tobrin
