#pragma once

// Readers that do not share code with ours, for tests that check files we
// write: libsndfile and, through runCommand, tools such as coreutils' sha256sum.
// Header-only; a suite using it links libsndfile (pkg-config sndfile).

#include <sndfile.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace tobrin::test {

struct SndfileContents {
    int channels = 0;
    int sampleRate = 0;
    int format = 0; // SF_FORMAT_* major | subtype
    std::int64_t frames = 0;
    std::vector<short> samples; // interleaved, as stored (16-bit files)
    std::vector<float> floats;  // interleaved, scaled to [-1, 1)

    std::vector<float> channel(int which) const {
        std::vector<float> out(static_cast<std::size_t>(frames));
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = floats[i * std::size_t(channels) + std::size_t(which)];
        return out;
    }
};

// Everything libsndfile reads from `file`, or nothing when it cannot open it.
inline std::optional<SndfileContents> readWithSndfile(const std::filesystem::path& file) {
    SF_INFO info{};
    SNDFILE* handle = sf_open(file.c_str(), SFM_READ, &info);
    if (!handle) return std::nullopt;
    SndfileContents contents;
    contents.channels = info.channels;
    contents.sampleRate = info.samplerate;
    contents.format = info.format;
    contents.frames = info.frames;
    const std::size_t count = std::size_t(info.frames) * std::size_t(info.channels);
    contents.samples.resize(count);
    sf_readf_short(handle, contents.samples.data(), info.frames);
    sf_seek(handle, 0, SEEK_SET);
    contents.floats.resize(count);
    sf_readf_float(handle, contents.floats.data(), info.frames);
    sf_close(handle);
    return contents;
}

// Standard output and error of a shell command, and how it exited.
struct CommandResult {
    std::string output;
    bool succeeded = false;
    int exitStatus = -1;
};

inline CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> chunk{};
    std::size_t got = 0;
    while ((got = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0) result.output.append(chunk.data(), got);
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    result.succeeded = result.exitStatus == 0;
    return result;
}

inline std::string quoted(const std::filesystem::path& path) {
    std::string text = "'";
    for (char c : path.string()) {
        if (c == '\'')
            text += "'\\''";
        else
            text += c;
    }
    return text + "'";
}

} // namespace tobrin::test

// The suites that still say tobrin::testing, until they move to the one name.
namespace tobrin {
namespace testing = test;
} // namespace tobrin
