#pragma once
// Test helpers: sound files written with libsndfile, the
// same library real packs are decoded with, but driven through its own API.

#include "Support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <numbers>
#include <string>
#include <unistd.h>
#include <vector>

namespace tobrin::test {

// Writes one sound file; `channels` holds one vector per channel, all of one
// length. 16-bit files get round(x * 32768), clamped: the scale readers divide
// by, so multiples of 1/32768 read back exactly.
inline void writeSound(const std::filesystem::path& path, const std::vector<std::vector<float>>& channels,
                       int sampleRate, int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16) {
    std::filesystem::create_directories(path.parent_path());
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = static_cast<int>(channels.size());
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const std::size_t frames = channels.front().size();
    std::vector<float> interleaved(frames * channels.size());
    for (std::size_t frame = 0; frame < frames; ++frame) {
        for (std::size_t channel = 0; channel < channels.size(); ++channel) {
            interleaved[frame * channels.size() + channel] = channels[channel][frame];
        }
    }
    sf_count_t written = 0;
    if ((format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16) {
        std::vector<short> shorts(interleaved.size());
        for (std::size_t i = 0; i < shorts.size(); ++i) {
            shorts[i] = static_cast<short>(std::clamp(std::lround(interleaved[i] * 32768.0f), -32768L, 32767L));
        }
        written = sf_writef_short(file, shorts.data(), static_cast<sf_count_t>(frames));
    } else {
        written = sf_writef_float(file, interleaved.data(), static_cast<sf_count_t>(frames));
    }
    sf_close(file);
    ASSERT_EQ(written, static_cast<sf_count_t>(frames));
}

inline std::vector<float> sine(std::size_t frames, double frequency, double sampleRate, double amplitude) {
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        samples[i] = static_cast<float>(
            amplitude * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / sampleRate));
    }
    return samples;
}

inline void writeText(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << text;
}

// Every regular file below `folder`, by relative path, with its bytes.
inline std::map<std::string, std::string> treeOf(const std::filesystem::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) files[std::filesystem::relative(entry.path(), folder).string()] = readFile(entry);
    }
    return files;
}

// The message of the `Error` that `action` throws, as the user reads it, or
// "(no error)". An exception of another type is not caught.
template <class Error = std::exception, class Action>
std::string errorOf(Action&& action) {
    try {
        action();
    } catch (const Error& error) {
        return error.what();
    }
    return "(no error)";
}

} // namespace tobrin::test
