// tobrin-pack render PACK_DIR OUT.wav [--text T] [--wpm N]
#include "TypingDemo.h"
#include "Verbs.h"

#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace tobrin::pack {
namespace {

constexpr double renderRate = 48000;
constexpr double tailSeconds = 0.6;
// The longest render: ten minutes take about 230 MB of float samples, and
// the loudness measure twice that again.
constexpr double maximumSeconds = 600;

// A words-a-minute figure as a user types it: "70", "1.5".
std::string wpmText(double wordsPerMinute) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", wordsPerMinute);
    return text;
}

} // namespace

int runRender(std::span<const std::string_view> arguments) {
    TypingDemo demo;
    if (!demo.parse("render", arguments)) return exitUsage;
    const auto& positional = demo.positional;
    const double wordsPerMinute = demo.wordsPerMinute;
    if (positional.size() != 2) {
        printError("render needs a pack folder and an output file: render PACK_DIR OUT.wav [--text T] [--wpm N]");
        return exitUsage;
    }
    const std::filesystem::path packFolder(positional[0]);
    const std::filesystem::path output(positional[1]);

    // The text is checked first: a refusal costs no pack loading.
    const auto script = demo.script();
    if (script.empty()) {
        printError("render: the text has no character to type");
        return exitUsage;
    }
    double lastKey = 0;
    for (const ScriptedKey& key : script) lastKey = std::max(lastKey, key.time);
    if (lastKey + tailSeconds > maximumSeconds) {
        char minutes[32];
        std::snprintf(minutes, sizeof minutes, "%.0f", std::ceil((lastKey + tailSeconds) / 60));
        printError("render: typing this text at --wpm " + wpmText(wordsPerMinute) + " takes " + minutes +
                   " minutes; a render is limited to " + std::to_string(int(maximumSeconds / 60)) +
                   " minutes. Shorten the text or raise --wpm.");
        return exitUsage;
    }

    std::shared_ptr<const LoadedPack> pack;
    try {
        pack = LoadedPack::load(PackInfo::read(packFolder, false), renderRate);
    } catch (const std::exception& error) {
        printError(error.what());
        return exitFailure;
    }
    const auto audio = OfflineRenderer::render(*pack, script, EngineSettings(), tailSeconds, renderRate);
    try {
        WAVWriter::write(audio.left, std::span<const float>(audio.right), std::int64_t(renderRate), output);
    } catch (const std::exception& error) {
        printError("render: " + std::string(error.what()));
        return exitFailure;
    }
    const double lufs = Loudness::integrated(audio.left, std::span<const float>(audio.right), renderRate);
    const double seconds = double(audio.left.size()) / renderRate;
    std::printf("Wrote %s (%s, %zu keys, %.1f s)\n", printable(output.string()).c_str(),
                printable(pack->info().name).c_str(), script.size() / 2, seconds);
    std::printf("Loudness: %.2f LUFS\n", lufs);
    return exitSuccess;
}

} // namespace tobrin::pack
