// Loads a pack folder made of arbitrary files. The input is split at each
// "\n--8<--\n": the first part is pack.json, the following parts are the
// files named in `fileNames`, in order. A load must either fail with one of
// the documented errors or give a pack whose every query is usable and whose
// takes, played at every force and full volume, reach the output finite and
// within full scale.
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackError.h"
#include "TobrinKit/Engine/OfflineRenderer.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <unistd.h>

namespace {

using namespace tobrin;

constexpr std::string_view separator = "\n--8<--\n";
constexpr const char* fileNames[] = {"a.wav", "b.wav", "sub/c.wav", "d.flac", "e.ogg", "f.aiff", "g.wav", "h.wav"};

const std::filesystem::path& folder() {
    static const std::filesystem::path path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "tobrin-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        return std::filesystem::path(pattern);
    }();
    return path;
}

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "loaded pack broken: %s\n", what);
    std::abort();
}

void check(const LoadedPack& pack) {
    if (pack.sampleCount() == 0) broken("no samples");
    if (pack.memoryBytes() > LoadedPack::memoryBudget) broken("over budget");
    for (KeyGroup group : allKeyGroups) {
        const std::size_t variants = pack.variantCount(group);
        if (variants == 0) broken("a group without variants");
        for (std::size_t variant = 0; variant <= variants; ++variant) {
            const auto layers = pack.layers(group, variant);
            for (std::size_t tier = 0; tier < 4; ++tier) {
                const TBSample& sample = layers.samples[tier];
                if (!sample.left || !sample.right) broken("null channel");
                if (!(layers.gains[tier] > 0) || !std::isfinite(layers.gains[tier])) broken("bad gain");
                // Read every sample: the address sanitizer checks the blocks,
                // and the mixer must never be handed a NaN or an infinity.
                for (std::uint32_t i = 0; i < sample.frames; ++i) {
                    if (!std::isfinite(sample.left[i]) || !std::isfinite(sample.right[i])) broken("not finite");
                    if (std::fabs(sample.left[i]) > SoundReader::sampleLimit ||
                        std::fabs(sample.right[i]) > SoundReader::sampleLimit) {
                        broken("beyond the sample limit");
                    }
                }
            }
            if (auto take = pack.release(group, variant)) {
                if (!take->sample.left || take->gain != 1.0f) broken("bad release");
            }
        }
    }
}

// Every group at every tier and between tiers (and at NaN), with releases,
// overlapping, at the mixer's highest master gain: whatever the takes hold,
// what would reach the device must be finite and within full scale.
void checkRendered(const LoadedPack& pack) {
    const std::uint16_t codes[] = {0, 49, 36, 51, 56}; // alpha, space, enter, backspace, modifier
    const float positions[] = {0.0f, 1.0f, 1.5f, 2.6f, 3.0f, NAN};
    std::vector<ScriptedKey> script;
    double time = 0.0;
    for (const std::uint16_t code : codes) {
        for (const float position : positions) {
            script.push_back(ScriptedKey{time, code, KeyAction::down, position});
            script.push_back(ScriptedKey{time + 0.01, code, KeyAction::up, position});
            time += 0.004;
        }
    }
    EngineSettings settings;
    settings.volume = 4.0f;
    const auto out = OfflineRenderer::render(pack, script, settings, 0.1, 48000);
    for (std::size_t i = 0; i < out.left.size(); ++i) {
        for (const float sample : {out.left[i], out.right[i]}) {
            if (!std::isfinite(sample) || std::fabs(sample) > 1.0f) broken("rendered output not finite or beyond ±1");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::filesystem::path& root = folder();
    for (const auto& entry : std::filesystem::directory_iterator(root)) std::filesystem::remove_all(entry.path());

    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::size_t part = 0;
    while (true) {
        const std::size_t end = rest.find(separator);
        const std::string_view bytes = rest.substr(0, end);
        if (part == 0) {
            writeFile(root / "pack.json", bytes);
        } else if (part <= std::size(fileNames)) {
            writeFile(root / fileNames[part - 1], bytes);
        }
        ++part;
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + separator.size());
    }

    try {
        const auto pack = LoadedPack::load(PackInfo{"fuzz", "Fuzz", "fuzz", std::nullopt, root, false}, 48000);
        check(*pack);
        checkRendered(*pack);
    } catch (const PackError&) {
    } catch (const SampleBuffer::OpenError&) {
    }
    return 0;
}
