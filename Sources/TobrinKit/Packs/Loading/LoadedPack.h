#pragma once
/*
 * A sound pack decoded into memory, with every gap filled.
 *
 * Thread contract: load() runs off the audio thread (it decodes files and may
 * take a while). The result is immutable, so every query may be called from
 * any thread at once. The TBSamples it hands out point into buffers the pack
 * owns: keep the pack alive (its shared_ptr) as long as the mixer may still
 * read a take of it.
 */

#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Samples/SampleBuffer.h"
#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/PackManifest.h"

#include "TobrinMixer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace tobrin {

// For every key group, the takes of each of the four force tiers (each with
// the gain it is played at) and the release takes, decoded at the output
// rate. Tiers and groups missing from the pack are served by the nearest
// tier and by "alpha" (or another group) at load time, so the engine never
// has to ask whether something exists.
class LoadedPack {
public:
    struct Take {
        TBSample sample;
        // Linear gain for the tier this take stands in for (1 for its own tier).
        float gain = 1.0f;
    };

    // The four takes that sound together for one key press, in Tier order.
    struct Layers {
        std::array<TBSample, 4> samples;
        std::array<float, 4> gains;
    };

    // Decoded audio of one pack is limited to 96 MiB, counted as stereo
    // 32-bit float at the output rate whatever the files' channel counts.
    static constexpr std::size_t memoryBudget = 100'663'296;

    // Reads and decodes "pack.json" in `folder`: PackError::missingManifest
    // or unreadableManifest when it is not there or cannot be read,
    // PackManifest::DecodeError when it does not decode.
    static PackManifest readManifest(const std::filesystem::path& folder);

    // Decodes every file the manifest names at `sampleRate`. Files are
    // opened beneath the pack folder's descriptor (ConfinedFolder), so no
    // path, link or swap leads out of it. Throws PackError (invalid
    // manifest, a path leaving the pack folder, too much audio, no usable
    // sound), or the decoder's OpenError naming the file. Nothing partial is
    // ever returned.
    static std::shared_ptr<const LoadedPack> load(const PackInfo& info, double sampleRate);

    // Entry (variant modulo the length of each tier's list) of every tier.
    Layers layers(KeyGroup group, std::size_t variant) const;
    // Entry (variant modulo length) of the group's release takes, if it has any.
    std::optional<Take> release(KeyGroup group, std::size_t variant) const;
    // The longest of the group's four tier lists; variants are drawn below it.
    std::size_t variantCount(KeyGroup group) const;
    bool hasReleaseSounds() const;

    const PackInfo& info() const { return info_; }
    const PackManifest& manifest() const { return manifest_; }
    // Bytes of decoded audio held (a mono file counts one channel).
    std::size_t memoryBytes() const { return memoryBytes_; }
    // Frames of the longest decoded sound.
    std::size_t longestSoundFrames() const;
    // Number of distinct decoded files.
    std::size_t sampleCount() const { return buffers_.size(); }

    LoadedPack(const LoadedPack&) = delete;
    LoadedPack& operator=(const LoadedPack&) = delete;

private:
    // The takes of one press tier: a list of lists_, at the gain it plays
    // at for this tier. Groups and tiers served by another share its list.
    struct TierTakes {
        std::uint32_t list = 0;
        float gain = 1.0f;
    };

    LoadedPack() = default;

    PackInfo info_;
    PackManifest manifest_;
    std::size_t memoryBytes_ = 0;
    // Owns the audio every take points into; never resized after load.
    std::vector<SampleBuffer> buffers_;
    // Each list of takes the manifest names, once; none is empty.
    std::vector<std::vector<TBSample>> lists_;
    // Indexed by KeyGroup, then Tier.
    std::array<std::array<TierTakes, 4>, 5> down_{};
    // Indexed by KeyGroup: the list of release takes, if any.
    std::array<std::optional<std::uint32_t>, 5> up_;
};

} // namespace tobrin
