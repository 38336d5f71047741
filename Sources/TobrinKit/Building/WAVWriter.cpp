#include "TobrinKit/Building/WAVWriter.h"

#include "TobrinKit/Engine/Core/OutputFile.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tobrin {

namespace {

constexpr std::uint64_t ditherSeed = 0x5EED;

[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "Tobrin: WAVWriter: %s\n", what);
    std::abort();
}

void put16(std::uint8_t*& out, std::uint16_t value) {
    *out++ = std::uint8_t(value & 0xff);
    *out++ = std::uint8_t(value >> 8);
}

void put32(std::uint8_t*& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) *out++ = std::uint8_t((value >> shift) & 0xff);
}

void putText(std::uint8_t*& out, const char (&text)[5]) {
    std::memcpy(out, text, 4);
    out += 4;
}

// Triangular dither of one sample: two uniform draws, their difference
// scaled to one 16-bit step.
float dither(SplitMix64& rng) {
    const double u1 = rng.unit();
    const double u2 = rng.unit();
    return static_cast<float>(u1 - u2) * 0x1p-15f;
}

} // namespace

void WAVWriter::write(std::span<const float> left, std::optional<std::span<const float>> right, std::int64_t sampleRate,
                      const std::filesystem::path& file) {
    const std::uint64_t channels = right ? 2 : 1;
    const std::uint64_t frames = left.size();
    if (right && right->size() < left.size()) fatal("right channel shorter than left");
    if (sampleRate < 0 || sampleRate > 0xFFFF'FFFFLL) fatal("sample rate out of range");
    const std::uint64_t dataSize = frames * channels * 2;
    const std::uint64_t byteRate = std::uint64_t(sampleRate) * channels * 2;
    if (frames > 0xFFFF'FFFFULL || dataSize + 36 > 0xFFFF'FFFFULL) fatal("data too large for a WAV file");
    if (byteRate > 0xFFFF'FFFFULL) fatal("byte rate too large for a WAV file");

    const std::size_t fileSize = std::size_t(dataSize) + 44;
    const std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[fileSize]);
    std::uint8_t* out = bytes.get();
    putText(out, "RIFF");
    put32(out, std::uint32_t(36 + dataSize));
    putText(out, "WAVE");
    putText(out, "fmt ");
    put32(out, 16);
    put16(out, 1); // integer PCM
    put16(out, std::uint16_t(channels));
    put32(out, std::uint32_t(sampleRate));
    put32(out, std::uint32_t(byteRate));
    put16(out, std::uint16_t(channels * 2));
    put16(out, 16);
    putText(out, "data");
    put32(out, std::uint32_t(dataSize));

    // Reseeded for every file: the same input always gives the same bytes.
    SplitMix64 rng(ditherSeed);
    for (std::size_t i = 0; i < frames; ++i) {
        put16(out, std::uint16_t(quantise(left[i], dither(rng))));
        if (right) put16(out, std::uint16_t(quantise((*right)[i], dither(rng))));
    }

    OutputFile::write(file, std::span<const std::uint8_t>(bytes.get(), fileSize));
}

} // namespace tobrin
