#pragma once

// Readers that do not share code with ours, for tests that check files we
// write: libsndfile, the sox command-line tool and coreutils' sha256sum.
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

// What `sox --i` reports about a file.
struct SoxInfo {
    int channels = 0;
    int sampleRate = 0;
    int precisionBits = 0;
    std::int64_t samples = 0; // frames
    std::string encoding;     // e.g. "16-bit Signed Integer PCM"
};

// `sox --i` run once over all the files; the reports keyed by the path sox
// prints. Files sox cannot read are missing from the result.
inline std::map<std::string, SoxInfo> soxInfo(const std::vector<std::filesystem::path>& files) {
    std::string command = "sox --i";
    for (const auto& file : files) command += " " + quoted(file);
    const CommandResult result = runCommand(command);
    std::map<std::string, SoxInfo> reports;
    std::istringstream lines(result.output);
    std::string line, current;
    const auto valueOf = [](const std::string& text) {
        const auto colon = text.find(':');
        return colon == std::string::npos ? std::string() : text.substr(colon + 2);
    };
    try {
        while (std::getline(lines, line)) {
            if (line.rfind("Input File", 0) == 0) {
                const std::string value = valueOf(line);
                current = value.size() >= 2 ? value.substr(1, value.size() - 2) : value;
                reports[current] = SoxInfo{};
            } else if (current.empty()) {
                continue;
            } else if (line.rfind("Channels", 0) == 0) {
                reports[current].channels = std::stoi(valueOf(line));
            } else if (line.rfind("Sample Rate", 0) == 0) {
                reports[current].sampleRate = std::stoi(valueOf(line));
            } else if (line.rfind("Precision", 0) == 0) {
                reports[current].precisionBits = std::stoi(valueOf(line));
            } else if (line.rfind("Duration", 0) == 0) {
                const auto equals = line.find("= ");
                if (equals != std::string::npos) reports[current].samples = std::stoll(line.substr(equals + 2));
            } else if (line.rfind("Sample Encoding", 0) == 0) {
                reports[current].encoding = valueOf(line);
            }
        }
    } catch (const std::exception&) {
        return {};
    }
    return reports;
}

} // namespace tobrin::test

// The suites that still say tobrin::testing, until they move to the one name.
namespace tobrin {
namespace testing = test;
} // namespace tobrin
