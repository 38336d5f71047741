#include "TobrinKit/Engine/OfflineRenderer.h"

#include "TobrinKit/Engine/Core/KeyCode.h"

#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Force/ForceClassifier.h"
#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <TobrinMixer.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <memory>
#include <utility>

namespace tobrin::OfflineRenderer {
namespace {

constexpr std::uint32_t blockFrames = 64;
constexpr std::uint64_t jitterSeed = 42;
constexpr std::array<float, 4> relativeOfTier{0.4f, 1.0f, 2.2f, 4.0f};

struct MixerDeleter {
    void operator()(TBMixer* mixer) const { tb_mixer_destroy(mixer); }
};

} // namespace

float relativeStrength(float position) {
    // NaN is the softest position, as the tier weights take it; converted to
    // an index it would point anywhere.
    if (std::isnan(position)) return relativeOfTier[0];
    const auto tier = std::size_t(std::clamp(std::round(position), 0.0f, 3.0f));
    return relativeOfTier[tier];
}

int keyCode(char character) {
    // The typable characters and their US ANSI virtual key codes (51 keys).
    // clang-format off
    static constexpr std::array<std::pair<char, std::uint16_t>, 51> keys{{
        {'a', 0}, {'s', 1}, {'d', 2}, {'f', 3}, {'h', 4}, {'g', 5}, {'z', 6}, {'x', 7},
        {'c', 8}, {'v', 9}, {'b', 11}, {'q', 12}, {'w', 13}, {'e', 14}, {'r', 15}, {'y', 16},
        {'t', 17}, {'1', 18}, {'2', 19}, {'3', 20}, {'4', 21}, {'6', 22}, {'5', 23}, {'=', 24},
        {'9', 25}, {'7', 26}, {'-', 27}, {'8', 28}, {'0', 29}, {']', 30}, {'o', 31}, {'u', 32},
        {'[', 33}, {'i', 34}, {'p', 35}, {'\n', 36}, {'l', 37}, {'j', 38}, {'\'', 39}, {'k', 40},
        {';', 41}, {'\\', 42}, {',', 43}, {'/', 44}, {'n', 45}, {'m', 46}, {'.', 47}, {'\t', 48},
        {' ', 49}, {'`', 50}, {'\b', 51},
    }};
    // clang-format on
    for (const auto& [key, code] : keys)
        if (key == character) return code;
    return -1;
}

std::vector<ScriptedKey> typingScript(std::string_view text, double wpm, std::uint64_t seed,
                                      const std::function<float(int, int)>& strength) {
    std::vector<std::uint16_t> codes;
    for (const char character : text) {
        const int code = keyCode(char(std::tolower(static_cast<unsigned char>(character))));
        if (code >= 0) codes.push_back(std::uint16_t(code));
    }

    std::vector<ScriptedKey> script;
    script.reserve(codes.size() * 2);
    const double beat = 60.0 / (wpm * 5.0);
    double t = 0.15;
    SplitMix64 rng(seed);
    const int count = int(codes.size());
    for (int i = 0; i < count; ++i) {
        const std::uint16_t code = codes[std::size_t(i)];
        const float position = strength ? strength(i, count) : 1.0f;
        const double u1 = rng.unit();
        script.push_back(ScriptedKey{t, code, KeyAction::down, position});
        script.push_back(ScriptedKey{t + 0.06 + 0.04 * u1, code, KeyAction::up, position});
        const double u2 = rng.unit();
        double gap = code == KeyCode::space ? 0.3 * beat : 0.0;
        gap += beat * (0.6 + 0.8 * u2);
        t += gap;
    }
    return script;
}

Channels render(const LoadedPack& pack, std::vector<ScriptedKey> script, const EngineSettings& settings, double tail,
                double sampleRate) {
    std::unique_ptr<TBMixer, MixerDeleter> mixer(tb_mixer_create(float(sampleRate), 4.0f));
    if (!mixer) return {};
    tb_mixer_set_master(mixer.get(), settings.volume);

    std::stable_sort(script.begin(), script.end(),
                     [](const ScriptedKey& a, const ScriptedKey& b) { return a.time < b.time; });
    const double seconds = tail + (script.empty() ? 0.0 : script.back().time);
    const double lengthFrames = std::floor(sampleRate * seconds);
    if (!(lengthFrames >= 1)) return {};
    const auto length = std::size_t(lengthFrames);

    Channels out;
    out.left.assign(length, 0.0f);
    out.right.assign(length, 0.0f);

    SplitMix64 rng(jitterSeed);
    std::uint32_t tag = 0;
    std::size_t next = 0;
    auto commandFor = [&](const ScriptedKey& key, TBCommand& command) -> bool {
        const double u1 = rng.unit();
        const double u2 = rng.unit();
        const float gain = float(1.0 + 0.06 * (2.0 * u1 - 1.0));
        const float rate = float(1.0 + 0.004 * (2.0 * u2 - 1.0));
        const float relative = relativeStrength(key.position);
        const KeyGroup group = KeyLayout::group(key.code);
        const auto variant = Voicing::variant(key.code, pack, group);
        command.pan = Voicing::pan(key.code, settings);
        command.rate = rate * Voicing::pitchFactor(key.code);
        if (key.action == KeyAction::down) {
            const auto layers = pack.layers(group, variant);
            Voicing::setLayers(command, layers.samples);
            const auto weights = Voicing::weights(key.position, relative, layers.gains, settings.blendTiers, gain);
            Voicing::setWeights(command, std::span<const float>(weights.begin(), weights.size()));
            return true;
        }
        if (!settings.releaseSounds) return false;
        const auto release = pack.release(group, variant);
        if (!release) return false;
        command.layers[0] = release->sample;
        command.weights[0] = gain * Voicing::releaseStrength(relative) * release->gain * 0.8f;
        return true;
    };

    for (std::size_t offset = 0; offset < length; offset += blockFrames) {
        const std::size_t frames = std::min<std::size_t>(blockFrames, length - offset);
        const std::size_t blockEnd = offset + frames;
        while (next < script.size() && std::floor(sampleRate * script[next].time) < double(blockEnd)) {
            TBCommand command{};
            command.type = TB_COMMAND_START;
            if (commandFor(script[next], command)) {
                tag = tag == UINT32_MAX ? 1 : tag + 1; // never 0
                command.tag = tag;
                // A full ring loses the sound, exactly as the live engine does.
                tb_mixer_push(mixer.get(), &command);
            }
            ++next;
        }
        tb_mixer_render(mixer.get(), out.left.data() + offset, out.right.data() + offset, std::uint32_t(frames));
    }
    return out;
}

} // namespace tobrin::OfflineRenderer
