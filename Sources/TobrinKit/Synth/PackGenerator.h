#pragma once

#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Packs/PackManifest.h"
#include "TobrinKit/Synth/SynthProfile.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tobrin {

// Turns a SynthProfile into a sound pack on disk: one WAV file per take and a
// pack.json, in the folder named after the profile's id. Takes render on
// worker threads, each into its own slot; levelling, writing and the manifest
// follow on the calling thread in a fixed order, so the files are
// byte-identical whatever the thread count. Used by the pack tool and the
// build, never by the running application.
class PackGenerator {
public:
    PackGenerator() = delete;

    // Variations rendered per tier, and for the release, of alpha and of
    // every other group.
    static constexpr std::uint32_t alphaVariants = 4;
    static constexpr std::uint32_t otherVariants = 2;
    // The peak the loudest alpha medium take is levelled to (about −10 dBFS).
    static constexpr float referencePeak = 0.316f;

    struct Take {
        std::string name; // file name, e.g. "alpha-soft-1.wav"
        KeyGroup group = KeyGroup::alpha;
        std::optional<Tier> tier; // none: a release
        std::uint32_t variant = 0;
        std::vector<float> left;
        std::vector<float> right;
        bool isReference = false;
    };

    // Every take of the pack in file order, rendered with `threads` workers
    // (0: one per processor) and levelled with one common gain.
    static std::vector<Take> renderTakes(const SynthProfile& profile, unsigned threads = 0);

    // The manifest that lists `takes` for `profile`.
    static PackManifest manifest(const SynthProfile& profile, const std::vector<Take>& takes);

    // Renders the profile's takes and writes the pack (below). Returns the
    // pack folder.
    static std::filesystem::path generate(const SynthProfile& profile, const std::filesystem::path& into,
                                          unsigned threads = 0);

    // Removes `into`/id if anything is there (a pack is replaced whole, never
    // merged), recreates it, writes every take in order and then pack.json.
    // File-system failures are thrown as they come
    // (std::filesystem::filesystem_error, std::system_error); files written
    // before a failure stay. Returns the pack folder.
    static std::filesystem::path write(const SynthProfile& profile, const std::vector<Take>& takes,
                                       const std::filesystem::path& into);
};

} // namespace tobrin
