// tobrin-pack play PACK_DIR [--text T] [--wpm N]
//
// Types the demo text live through the audio output the app would use, so a
// pack author (or a user checking their set-up) hears a pack without the app.
// The keys go through the Conductor at the script's moments, on this machine's
// sound server.
#include "TypingDemo.h"
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

// The longest a key's sound may ring on after the last key.
constexpr auto tailLimit = std::chrono::seconds(3);

bool forcedNullDevice() {
    const char* forced = std::getenv("TOBRIN_AUDIO");
    return forced && std::string_view(forced) == "null";
}

} // namespace

int runPlay(std::span<const std::string_view> arguments) {
    TypingDemo demo;
    if (!demo.parse("play", arguments)) return exitUsage;
    const auto& positional = demo.positional;
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
    auto script = demo.script();
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
