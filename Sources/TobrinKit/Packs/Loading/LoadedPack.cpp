// Loading a pack: decoding its files once each, within the memory budget and
// the pack folder, then filling every missing group and tier.
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include "TobrinKit/Packs/Loading/ConfinedFolder.h"
#include "TobrinKit/Packs/PackError.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <string_view>
#include <system_error>

namespace tobrin {

namespace {

std::size_t index(KeyGroup group) { return static_cast<std::size_t>(group); }

// A take's path names a file below the pack folder: relative, without a ".."
// component even where it would stay inside (the format forbids it). A name
// such as "a..wav" is a file, not a step up. Links are the folder's concern.
bool isConfined(std::string_view path) {
    if (path.starts_with('/')) return false;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (path.substr(start, end - start) == "..") return false;
        start = end + 1;
    }
    return true;
}

ConfinedFolder openFolder(const std::filesystem::path& folder) {
    try {
        return ConfinedFolder(folder);
    } catch (const std::system_error& error) {
        throw SampleBuffer::OpenError(PackError::decode(folder, error.code().message()).description());
    }
}

// Decodes the files of one pack. The cache makes a path named in several
// lists decode (and count against the budget) once.
class Decoder {
public:
    Decoder(const PackInfo& info, double sampleRate)
        : info_(info), sampleRate_(sampleRate), folder_(openFolder(info.directory)) {}

    std::size_t resolve(const std::string& path) {
        if (auto cached = cache_.find(path); cached != cache_.end()) return cached->second;
        if (!isConfined(path)) escapes(path);
        // Opened beneath the folder's descriptor: a link leading out, or one
        // swapped in at any moment, is refused by the same step that opens.
        ConfinedFolder::File file;
        try {
            file = folder_.open(path);
        } catch (const std::system_error& error) {
            if (error.code() == std::errc::cross_device_link) escapes(path);
            throw SampleBuffer::OpenError(PackError::decode(path, error.code().message()).description());
        }

        // The remaining budget, checked against the file's header before
        // decoding and against the decoded frames while decoding.
        const std::size_t remainingFrames = (LoadedPack::memoryBudget - bytes_) / 8;
        try {
            SoundReader reader(file.descriptor(), path, sampleRate_);
            buffers_.push_back(SampleBuffer::load(reader, remainingFrames));
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
    ConfinedFolder folder_;
    std::map<std::string, std::size_t> cache_;
    std::vector<SampleBuffer> buffers_;
    std::size_t bytes_ = 0;
};

// Per tier, the index of its list of takes; an absent tier is empty.
using TierLists = std::array<std::optional<std::uint32_t>, 4>;

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
    // Each list the manifest names, as buffer indices; the manifest's caps
    // keep their count and lengths small.
    std::vector<std::vector<std::size_t>> lists;
    const auto addList = [&](const std::vector<std::string>& paths) {
        lists.push_back(decoder.resolveAll(paths));
        return static_cast<std::uint32_t>(lists.size() - 1);
    };
    std::map<KeyGroup, TierLists> presses;
    std::map<KeyGroup, std::uint32_t> releases;
    for (const auto& [groupName, group] : manifest.groups) {
        const auto keyGroup = keyGroupFromRawValue(groupName);
        if (!keyGroup) continue;
        for (const auto& [tierName, paths] : group.down) {
            const auto tier = tierFromName(tierName);
            if (!tier || paths.empty()) continue;
            presses[*keyGroup][static_cast<std::size_t>(*tier)] = addList(paths);
        }
        if (group.up && !group.up->empty()) releases[*keyGroup] = addList(*group.up);
    }
    if (presses.empty()) throw PackError::empty(manifest.id);

    std::shared_ptr<LoadedPack> pack(new LoadedPack());
    pack->info_ = info;
    pack->manifest_ = std::move(manifest);
    pack->buffers_ = decoder.takeBuffers();
    for (const SampleBuffer& buffer : pack->buffers_) pack->memoryBytes_ += buffer.memoryBytes();
    for (const auto& list : lists) {
        std::vector<TBSample>& samples = pack->lists_.emplace_back();
        samples.reserve(list.size());
        for (std::size_t buffer : list) samples.push_back(pack->buffers_[buffer].tbSample());
    }

    // A group without press sounds plays "alpha"'s, or failing that those of
    // the first group the map holds.
    const TierLists& substitute =
        presses.contains(KeyGroup::alpha) ? presses.at(KeyGroup::alpha) : presses.begin()->second;
    for (KeyGroup group : allKeyGroups) {
        const auto found = presses.find(group);
        const TierLists& tiers = found != presses.end() ? found->second : substitute;
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
                TierTakes{*tiers[static_cast<std::size_t>(chosen)], gain};
        }
    }

    const auto alphaReleases = releases.find(KeyGroup::alpha);
    for (KeyGroup group : allKeyGroups) {
        if (auto own = releases.find(group); own != releases.end()) {
            pack->up_[index(group)] = own->second;
        } else if (alphaReleases != releases.end()) {
            pack->up_[index(group)] = alphaReleases->second;
        }
    }
    return pack;
}

LoadedPack::Layers LoadedPack::layers(KeyGroup group, std::size_t variant) const {
    Layers result{};
    for (std::size_t tier = 0; tier < 4; ++tier) {
        const TierTakes& takes = down_[index(group)][tier];
        const std::vector<TBSample>& list = lists_[takes.list];
        result.samples[tier] = list[variant % list.size()];
        result.gains[tier] = takes.gain;
    }
    return result;
}

std::optional<LoadedPack::Take> LoadedPack::release(KeyGroup group, std::size_t variant) const {
    const auto list = up_[index(group)];
    if (!list) return std::nullopt;
    const std::vector<TBSample>& takes = lists_[*list];
    return Take{takes[variant % takes.size()], 1.0f};
}

std::size_t LoadedPack::variantCount(KeyGroup group) const {
    std::size_t count = 0;
    for (const TierTakes& takes : down_[index(group)]) count = std::max(count, lists_[takes.list].size());
    return count;
}

bool LoadedPack::hasReleaseSounds() const {
    return std::any_of(up_.begin(), up_.end(), [](const auto& list) { return list.has_value(); });
}

std::size_t LoadedPack::longestSoundFrames() const {
    std::size_t longest = 0;
    for (const SampleBuffer& buffer : buffers_) longest = std::max(longest, std::size_t(buffer.frames()));
    return longest;
}

} // namespace tobrin
