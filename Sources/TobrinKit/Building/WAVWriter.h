#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>

namespace tobrin {

// Writes float audio as a 16-bit PCM WAV file (the plain 44-byte header) with
// a seeded triangular dither, so the same samples always give the same bytes.
// Stateless; safe to call from several threads for different files.
class WAVWriter {
public:
    WAVWriter() = delete;

    // Mono without `right`, stereo with it (`right` at least as long as
    // `left`). The file is assembled in memory and written with
    // OutputFile::write: a regular file is replaced whole (written beside
    // the target and renamed over it, keeping an existing file's mode and
    // owner), a FIFO or character device is written to directly. Throws
    // std::filesystem::filesystem_error when the file cannot be written. A
    // size or rate beyond the format's 32-bit fields aborts.
    static void write(std::span<const float> left, std::optional<std::span<const float>> right, std::int64_t sampleRate,
                      const std::filesystem::path& file);

    // The 16-bit value of one sample plus its dither (d in [−2^−15, 2^−15)).
    static std::int16_t quantise(float sample, float dither) {
        const float x = sample + dither;
        if (!(x < 1.0f)) return 32767; // NaN too
        return static_cast<std::int16_t>((x > -1.0f ? x : -1.0f) * 32767.0f);
    }
};

} // namespace tobrin
