#pragma once
// Recordings of someone typing, made by rendering a typing script with a
// built-in pack and adding what real rooms add: a noise floor, mains hum and
// strokes that overlap. The script is kept, so a test knows where every key
// went down and up and how hard it was struck.

#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <vector>

namespace tobrin::test {

struct PlacedKey {
    std::size_t down = 0;  // frame the press starts at
    std::size_t up = 0;    // frame the release starts at
    float position = 0;    // tier position it was struck with
    bool overlaps = false; // struck while the previous key still rang
    bool space = false;    // the space bar, a big key
};

struct TypingRecording {
    std::vector<float> left, right;
    double rate = 48000;
    std::vector<PlacedKey> keys;
};

struct TypingRecordingOptions {
    int keys = 80;
    int overlapEvery = 16; // every n-th stroke gets a second key 40 ms after it (0: none)
    int spaceEvery = 0;    // every n-th stroke is the space bar (0: letters only)
    float noise = 0.0005f; // white noise amplitude (about −66 dBFS)
    float hum = 0.01f;     // 50 Hz (and a third as much at 150 Hz)
    std::uint64_t seed = 7;
};

// Keys are placed on the renderer's 64-frame blocks, so a key starts exactly
// at its frame. Letters (and spaces when asked), with positions 0 ... 3
// drawn at random.
inline TypingRecording renderTypingRecording(const LoadedPack& pack, double rate,
                                             const TypingRecordingOptions& options = {}) {
    TypingRecording recording;
    recording.rate = rate;
    SplitMix64 random(options.seed);
    const auto frameOf = [&](double seconds) { return std::size_t(seconds * rate / 64.0) * 64; };
    const auto timeOf = [&](std::size_t frame) { return (double(frame) + 0.5) / rate; };
    std::vector<ScriptedKey> script;
    double t = 0.2;
    const auto press = [&](double at, char letter, float position, bool overlaps) {
        PlacedKey key;
        key.down = frameOf(at);
        key.up = frameOf(at + 0.06 + 0.04 * random.unit());
        key.position = position;
        key.overlaps = overlaps;
        key.space = letter == ' ';
        const auto code = std::uint16_t(OfflineRenderer::keyCode(letter));
        script.push_back({timeOf(key.down), code, KeyAction::down, position});
        script.push_back({timeOf(key.up), code, KeyAction::up, position});
        recording.keys.push_back(key);
    };
    for (int i = 0; i < options.keys; ++i) {
        char letter = char('a' + random.next() % 26);
        if (options.spaceEvery > 0 && i % options.spaceEvery == options.spaceEvery - 1) letter = ' ';
        const auto position = float(random.next() % 4);
        press(t, letter, position, false);
        if (options.overlapEvery > 0 && i % options.overlapEvery == options.overlapEvery - 1) {
            press(t + 0.04, char('a' + random.next() % 26), 3.0f, true);
            t += 0.12;
        }
        t += 0.16 + 0.12 * random.unit();
    }
    auto channels = OfflineRenderer::render(pack, script, EngineSettings{}, 0.6, rate);
    recording.left = std::move(channels.left);
    recording.right = std::move(channels.right);
    for (std::size_t i = 0; i < recording.left.size(); ++i) {
        const double phase = 2.0 * std::numbers::pi * 50.0 * double(i) / rate;
        const auto hum = float(options.hum * (std::sin(phase) + std::sin(3.0 * phase) / 3.0));
        recording.left[i] += hum + options.noise * float(random.signedUnit());
        recording.right[i] += hum + options.noise * float(random.signedUnit());
    }
    return recording;
}

// The recording as a compressed Ogg Vorbis file made by the ffmpeg program, at
// `fileRate`: what a sound-sharing site serves as a preview.
inline void writeOggRecording(const TypingRecording& recording, const std::filesystem::path& file, int fileRate) {
    const std::filesystem::path wav = file.string() + ".source.wav";
    WAVWriter::write(recording.left, std::span<const float>(recording.right), std::int64_t(recording.rate), wav);
    const std::string command = "ffmpeg -nostdin -loglevel error -y -i '" + wav.string() + "' -ar " +
                                std::to_string(fileRate) + " -c:a libvorbis -q:a 6 '" + file.string() + "'";
    const int status = std::system(command.c_str());
    std::filesystem::remove(wav);
    if (status != 0) throw std::runtime_error("ffmpeg could not make " + file.string());
}

} // namespace tobrin::test
