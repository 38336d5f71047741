#pragma once

#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Packs/PackManifest.h"
#include "TobrinKit/Synth/SynthProfile.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
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

    // What may stand at the pack's folder when a pack is written there: only
    // a pack this generator wrote (isGeneratedPack), or anything at all (the
    // user asked for it to be overwritten).
    enum class Overwrite { generatedPacks, anything };

    // The author and licence texts of every generated pack.
    static constexpr std::string_view author = "Tobrin";
    static constexpr std::string_view license = "Proprietary. Bundled with Tobrin.";

    // Renders the profile's takes and writes the pack (below). Returns the
    // pack folder. A folder in the way is refused before rendering starts.
    static std::filesystem::path generate(const SynthProfile& profile, const std::filesystem::path& into,
                                          unsigned threads = 0, Overwrite overwrite = Overwrite::generatedPacks);

    // Writes the pack into `into`/id through a StagedPackFolder: every take
    // in order, then pack.json, into a staging folder that is swapped into
    // place whole, so the previous pack stays as it was until then and
    // concurrent writers of one pack take turns. Throws
    // StagedPackFolder::Refused when something at `into`/id may not be
    // replaced (see Overwrite), and file-system failures as they come
    // (std::filesystem::filesystem_error, std::system_error), leaving the
    // previous pack in place. Returns the pack folder.
    static std::filesystem::path write(const SynthProfile& profile, const std::vector<Take>& takes,
                                       const std::filesystem::path& into,
                                       Overwrite overwrite = Overwrite::generatedPacks);

    // Whether `folder` holds a pack this generator wrote and nothing else, so
    // replacing it loses nothing of the user's (the rule is written at its
    // definition).
    static bool isGeneratedPack(const std::filesystem::path& folder);
};

} // namespace tobrin
