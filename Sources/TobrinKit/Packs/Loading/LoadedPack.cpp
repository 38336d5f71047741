// Loading a pack: decoding its files once each, within the memory budget and
// the pack folder, then filling every missing group and tier.
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include "TobrinKit/Packs/PackError.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <system_error>

namespace tobrin {

namespace {

std::size_t index(KeyGroup group) { return static_cast<std::size_t>(group); }

// True when `inner` is `outer` or lies below it. Both must be canonical.
bool isWithin(const std::filesystem::path& inner, const std::filesystem::path& outer) {
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

// Decodes the files of one pack. The cache makes a path named in several
// lists decode (and count against the budget) once.
class Decoder {
public:
    Decoder(const PackInfo& info, double sampleRate) : info_(info), sampleRate_(sampleRate) {
        std::error_code error;
        folder_ = std::filesystem::canonical(info.directory, error);
        // Only when the folder vanished since its manifest was read; the
        // decoder then fails to open the files.
        if (error) folder_ = std::filesystem::absolute(info.directory, error).lexically_normal();
    }

    std::size_t resolve(const std::string& path) {
        if (auto cached = cache_.find(path); cached != cache_.end()) return cached->second;
        if (path.find("..") != std::string::npos || path.starts_with("/")) escapes(path);
        // A symbolic link inside the pack must not lead out of it either.
        // When the path cannot even be resolved (a loop of links, a file used
        // as a folder), opening it fails the same way, with the decoder's message.
        std::error_code error;
        std::filesystem::path resolved = std::filesystem::weakly_canonical(folder_ / path, error);
        if (error) {
            resolved = folder_ / path;
        } else if (!isWithin(resolved, folder_)) {
            escapes(path);
        }

        const std::size_t remainingFrames = (LoadedPack::memoryBudget - bytes_) / 8;
        try {
            buffers_.push_back(SampleBuffer::load(resolved, sampleRate_, remainingFrames));
        } catch (const SampleBuffer::TooLong&) {
            throw PackError::invalidManifest(info_.directory, "pack is too large");
        }
        // frames × 8: two channels of 4-byte floats, whatever the file holds.
        bytes_ += buffers_.back().frames() * 8;
        if (bytes_ > LoadedPack::memoryBudget) throw PackError::invalidManifest(info_.directory, "pack is too large");
        cache_.emplace(path, buffers_.size() - 1);
        return buffers_.size() - 1;
    }

    std::vector<std::size_t> resolveAll(const std::vector<std::string>& paths) {
        std::vector<std::size_t> result;
        result.reserve(paths.size());
        for (const std::string& path : paths) result.push_back(resolve(path));
        return result;
    }

    std::vector<SampleBuffer> takeBuffers() { return std::move(buffers_); }

private:
    [[noreturn]] void escapes(const std::string& path) {
        throw PackError::invalidManifest(info_.directory, "path escapes pack: " + path);
    }

    const PackInfo& info_;
    double sampleRate_;
    std::filesystem::path folder_;
    std::map<std::string, std::size_t> cache_;
    std::vector<SampleBuffer> buffers_;
    std::size_t bytes_ = 0;
};

// Buffer indices per tier; an absent tier is an empty optional.
using TierBuffers = std::array<std::optional<std::vector<std::size_t>>, 4>;

} // namespace

PackManifest LoadedPack::readManifest(const std::filesystem::path& folder) { return PackManifest::read(folder); }

std::shared_ptr<const LoadedPack> LoadedPack::load(const PackInfo& info, double sampleRate) {
    PackManifest manifest;
    try {
        manifest = readManifest(info.directory);
    } catch (const PackManifest::DecodeError& error) {
        throw PackError::invalidManifest(info.directory / PackManifest::fileName, error.what());
    }

    Decoder decoder(info, sampleRate);
    std::map<KeyGroup, TierBuffers> presses;
    std::map<KeyGroup, std::vector<std::size_t>> releases;
    for (const auto& [groupName, group] : manifest.groups) {
        const auto keyGroup = keyGroupFromRawValue(groupName);
        if (!keyGroup) continue;
        for (const auto& [tierName, paths] : group.down) {
            const auto tier = tierFromName(tierName);
            if (!tier || paths.empty()) continue;
            presses[*keyGroup][static_cast<std::size_t>(*tier)] = decoder.resolveAll(paths);
        }
        if (group.up && !group.up->empty()) releases[*keyGroup] = decoder.resolveAll(*group.up);
    }
    if (presses.empty()) throw PackError::empty(manifest.id);

    std::shared_ptr<LoadedPack> pack(new LoadedPack());
    pack->info_ = info;
    pack->manifest_ = std::move(manifest);
    pack->buffers_ = decoder.takeBuffers();
    for (const SampleBuffer& buffer : pack->buffers_) pack->memoryBytes_ += buffer.memoryBytes();
    const auto& buffers = pack->buffers_;
    auto takes = [&](const std::vector<std::size_t>& indices, float gain) {
        std::vector<Take> result;
        result.reserve(indices.size());
        for (std::size_t i : indices) result.push_back(Take{buffers[i].tbSample(), gain});
        return result;
    };

    // A group without press sounds plays "alpha"'s, or failing that those of
    // the first group the map holds.
    const TierBuffers& substitute =
        presses.contains(KeyGroup::alpha) ? presses.at(KeyGroup::alpha) : presses.begin()->second;
    for (KeyGroup group : allKeyGroups) {
        const auto found = presses.find(group);
        const TierBuffers& tiers = found != presses.end() ? found->second : substitute;
        for (int wanted = 0; wanted < 4; ++wanted) {
            // The nearest tier present; on equal distance the lower one, as
            // the search looks below before above.
            int chosen = -1;
            for (int distance = 0; chosen < 0; ++distance) {
                if (wanted - distance >= 0 && tiers[static_cast<std::size_t>(wanted - distance)]) {
                    chosen = wanted - distance;
                } else if (wanted + distance < 4 && tiers[static_cast<std::size_t>(wanted + distance)]) {
                    chosen = wanted + distance;
                }
            }
            // A softer tier standing in for a harder one plays louder, by 1.6 per step.
            const float gain = std::pow(1.6f, static_cast<float>(wanted - chosen));
            pack->down_[index(group)][static_cast<std::size_t>(wanted)] =
                takes(*tiers[static_cast<std::size_t>(chosen)], gain);
        }
    }

    const auto alphaReleases = releases.find(KeyGroup::alpha);
    for (KeyGroup group : allKeyGroups) {
        if (auto own = releases.find(group); own != releases.end()) {
            pack->up_[index(group)] = takes(own->second, 1.0f);
        } else if (alphaReleases != releases.end()) {
            pack->up_[index(group)] = takes(alphaReleases->second, 1.0f);
        }
    }
    return pack;
}

LoadedPack::Layers LoadedPack::layers(KeyGroup group, std::size_t variant) const {
    Layers result{};
    const TierTakes& tiers = down_[index(group)];
    for (std::size_t tier = 0; tier < 4; ++tier) {
        const Take& take = tiers[tier][variant % tiers[tier].size()];
        result.samples[tier] = take.sample;
        result.gains[tier] = take.gain;
    }
    return result;
}

std::optional<LoadedPack::Take> LoadedPack::release(KeyGroup group, std::size_t variant) const {
    const std::vector<Take>& takes = up_[index(group)];
    if (takes.empty()) return std::nullopt;
    return takes[variant % takes.size()];
}

std::size_t LoadedPack::variantCount(KeyGroup group) const {
    std::size_t count = 0;
    for (const auto& takes : down_[index(group)]) count = std::max(count, takes.size());
    return count;
}

bool LoadedPack::hasReleaseSounds() const {
    return std::any_of(up_.begin(), up_.end(), [](const auto& takes) { return !takes.empty(); });
}

std::size_t LoadedPack::longestSoundFrames() const {
    std::size_t longest = 0;
    for (const SampleBuffer& buffer : buffers_) longest = std::max(longest, std::size_t(buffer.frames()));
    return longest;
}

} // namespace tobrin
