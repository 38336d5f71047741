// tobrin-pack play PACK_DIR [--text T] [--wpm N]
//
// Types the demo text live through the audio output the app would use, so a
// pack author (or a user checking their set-up) hears a pack without the app.
// The keys go through the Conductor at the script's moments, on this machine's
// sound server.
#include "Verbs.h"

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/Servers/SoundServers.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/OfflineRenderer.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>

namespace tobrin::pack {
namespace {

constexpr std::string_view defaultText = "The quick brown fox jumps over the lazy dog. Typing sounds like this.";
constexpr double defaultWordsPerMinute = 70;
constexpr std::uint64_t scriptSeed = 2024;
// The longest a key's sound may ring on after the last key.
constexpr auto tailLimit = std::chrono::seconds(3);

// From a light touch to a hard strike, as the render verb types.
float crescendo(int index, int count) {
    if (count < 2) return 1.0f;
    return 0.5f + 2.0f * float(index) / float(count - 1);
}

std::optional<double> parseNumber(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

bool forcedNullDevice() {
    const char* forced = std::getenv("TOBRIN_AUDIO");
    return forced && std::string_view(forced) == "null";
}

} // namespace

int runPlay(std::span<const std::string_view> arguments) {
    std::vector<std::string_view> positional;
    std::string text(defaultText);
    double wordsPerMinute = defaultWordsPerMinute;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--text" || argument == "--wpm") {
            if (i + 1 >= arguments.size()) {
                printError("play: " + std::string(argument) + " needs a value");
                return exitUsage;
            }
            const std::string_view value = arguments[++i];
            if (argument == "--text") {
                text = value;
            } else {
                const auto number = parseNumber(value);
                if (!number || !(*number >= 1 && *number <= 1000)) {
                    printError("play: --wpm takes a number of words a minute from 1 to 1000, not " +
                               std::string(value));
                    return exitUsage;
                }
                wordsPerMinute = *number;
            }
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 1) {
        printError("play needs a pack folder: play PACK_DIR [--text T] [--wpm N]");
        return exitUsage;
    }

    std::shared_ptr<const LoadedPack> pack;
    try {
        pack = LoadedPack::load(PackInfo::read(std::filesystem::path(positional[0]), false), AudioOutput::sampleRate);
    } catch (const std::exception& error) {
        printError(error.what());
        return exitFailure;
    }
    auto script = OfflineRenderer::typingScript(text, wordsPerMinute, scriptSeed, crescendo);
    if (script.empty()) {
        printError("play: the text has no character to type");
        return exitUsage;
    }
    std::stable_sort(script.begin(), script.end(),
                     [](const ScriptedKey& a, const ScriptedKey& b) { return a.time < b.time; });

    registerSoundServerBackends();
    auto audio = std::make_shared<AudioOutput>();
    Conductor conductor(audio, nullptr);
    EngineSettings settings;
    settings.forceSensing = false;
    conductor.apply(settings, true);
    conductor.setPack(pack);
    conductor.barrier();
    if (!audio->isRunning()) {
        printError("play: no audio output could be started (see the lines above)");
        return exitFailure;
    }
    const std::string backend = audio->backendName();
    if (backend == "null" && !forcedNullDevice()) {
        printError("play: no sound server could be used, so nothing would be heard (TOBRIN_AUDIO=null plays "
                   "silently anyway)");
        conductor.shutdown();
        return exitFailure;
    }
    std::printf("Playing %s through %s (%zu keys, %.1f s)\n", pack->info().name.c_str(), backend.c_str(),
                script.size() / 2, script.back().time);
    std::fflush(stdout);

    // The script's strength becomes the fixed tier of each stroke, so every
    // force layer of the pack is heard as the crescendo rises.
    const auto origin = std::chrono::steady_clock::now();
    for (const ScriptedKey& key : script) {
        std::this_thread::sleep_until(origin + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                   std::chrono::duration<double>(key.time)));
        if (key.action == KeyAction::down) {
            const auto tier = Tier(std::clamp(int(std::lround(key.position)), 0, 3));
            if (tier != settings.fixedTier) {
                settings.fixedTier = tier;
                conductor.apply(settings, false);
            }
        }
        conductor.handle(KeyEvent{key.code, key.action, MachTime::now()});
    }
    const auto tailEnd = std::chrono::steady_clock::now() + tailLimit;
    conductor.barrier();
    while (audio->activeVoices() > 0 && std::chrono::steady_clock::now() < tailEnd)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    conductor.shutdown();
    if (const auto underruns = audio->underruns(); underruns > 0)
        std::printf("%llu underruns: the sound server missed blocks\n", static_cast<unsigned long long>(underruns));
    return exitSuccess;
}

} // namespace tobrin::pack
