#include "TobrinKit/Synth/PackGenerator.h"

#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Packs/StagedPackFolder.h"
#include "TobrinKit/Synth/KeySynth.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace tobrin {

namespace {

constexpr double minimumReferencePeak = 0.000001;

// The takes of a pack in file order, not yet rendered.
std::vector<PackGenerator::Take> plannedTakes() {
    std::vector<PackGenerator::Take> takes;
    const auto plan = [&takes](KeyGroup group, std::optional<Tier> tier, std::uint32_t variant) {
        PackGenerator::Take& take = takes.emplace_back();
        // File numbers start at 1; the variant passed to the synthesizer at 0.
        take.name = std::string(rawValue(group)) + "-" + std::string(tier ? name(*tier) : "up") + "-" +
                    std::to_string(variant + 1) + ".wav";
        take.group = group;
        take.tier = tier;
        take.variant = variant;
        take.isReference = group == KeyGroup::alpha && tier == Tier::medium;
    };
    for (KeyGroup group : allKeyGroups) {
        const std::uint32_t count =
            group == KeyGroup::alpha ? PackGenerator::alphaVariants : PackGenerator::otherVariants;
        for (Tier tier : allTiers) {
            for (std::uint32_t v = 0; v < count; ++v) plan(group, tier, v);
        }
        for (std::uint32_t v = 0; v < count; ++v) plan(group, std::nullopt, v);
    }
    return takes;
}

// The groups of a manifest that lists `takes`.
std::map<std::string, PackManifest::Group> groupsOf(const std::vector<PackGenerator::Take>& takes) {
    std::map<std::string, PackManifest::Group> groups;
    for (const PackGenerator::Take& take : takes) {
        PackManifest::Group& group = groups[std::string(rawValue(take.group))];
        if (take.tier) {
            group.down[std::string(name(*take.tier))].push_back(take.name);
        } else {
            if (!group.up) group.up.emplace();
            group.up->push_back(take.name);
        }
    }
    return groups;
}

float peakOf(const PackGenerator::Take& take) {
    float peak = 0;
    for (float v : take.left) peak = std::max(peak, std::abs(v));
    for (float v : take.right) peak = std::max(peak, std::abs(v));
    return peak;
}

} // namespace

std::vector<PackGenerator::Take> PackGenerator::renderTakes(const SynthProfile& profile, unsigned threads) {
    std::vector<Take> takes = plannedTakes();

    // Each worker takes the next unrendered take; a take's samples depend on
    // its identity only, never on which worker rendered it or when.
    if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
    threads = std::min<unsigned>(threads, unsigned(takes.size()));
    std::atomic<std::size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    const auto work = [&] {
        try {
            for (std::size_t i = next++; i < takes.size(); i = next++) {
                Take& take = takes[i];
                KeySynth::Sound sound = KeySynth::render(take.group, take.tier, take.variant, profile);
                take.left = std::move(sound.left);
                take.right = std::move(sound.right);
            }
        } catch (...) {
            const std::lock_guard lock(failureMutex);
            if (!failure) failure = std::current_exception();
        }
    };
    {
        std::vector<std::jthread> workers;
        for (unsigned t = 1; t < threads; ++t) workers.emplace_back(work);
        work();
    }
    if (failure) std::rethrow_exception(failure);

    // One gain for the whole pack keeps the balance between groups, tiers and
    // releases exactly as synthesized.
    double gain = referencePeak;
    bool hasReference = false;
    float loudestReference = 0;
    for (const Take& take : takes) {
        if (!take.isReference) continue;
        hasReference = true;
        loudestReference = std::max(loudestReference, peakOf(take));
    }
    if (hasReference) gain = double(referencePeak) / std::max(double(loudestReference), minimumReferencePeak);
    for (Take& take : takes) {
        for (float& v : take.left) v = static_cast<float>(double(v) * gain);
        for (float& v : take.right) v = static_cast<float>(double(v) * gain);
    }
    return takes;
}

PackManifest PackGenerator::manifest(const SynthProfile& profile, const std::vector<Take>& takes) {
    PackManifest manifest;
    manifest.formatVersion = 1;
    manifest.id = profile.id;
    manifest.name = profile.name;
    manifest.kind = profile.kind;
    manifest.summary = profile.summary;
    manifest.author = author;
    manifest.license = license;
    manifest.groups = groupsOf(takes);
    return manifest;
}

// The rule, checked without following links: `folder` is a folder; its
// pack.json is a regular file that decodes, names the folder as its id,
// carries the generator's author and licence, and lists exactly the takes
// the generator writes, under their names, in their lists; and the folder
// holds nothing but pack.json and those takes (some may be missing), each a
// regular file. So a folder the user made, a pack with a recording, a link,
// a hidden file or a sub-folder added, and a manifest changed to list other
// files are all refused. What replacing can lose is a take overwritten in
// place under a generated name, which no rule that reads names can tell
// from the generator's own.
bool PackGenerator::isGeneratedPack(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (fs::symlink_status(folder, error).type() != fs::file_type::directory || error) return false;
    if (fs::symlink_status(folder / PackManifest::fileName, error).type() != fs::file_type::regular) return false;
    PackManifest found;
    try {
        found = PackManifest::read(folder);
    } catch (const std::exception&) {
        return false;
    }
    std::filesystem::path name = folder;
    while (!name.has_filename() && name.has_relative_path()) name = name.parent_path();
    const std::vector<Take> planned = plannedTakes();
    if (found.id != name.filename().string() || found.author != author || found.license != license ||
        found.groups != groupsOf(planned)) {
        return false;
    }
    std::set<std::string> expected{std::string(PackManifest::fileName)};
    for (const Take& take : planned) expected.insert(take.name);
    for (fs::directory_iterator entry(folder, error), end; entry != end; entry.increment(error)) {
        if (error) return false;
        if (!expected.contains(entry->path().filename().string())) return false;
        if (entry->symlink_status(error).type() != fs::file_type::regular || error) return false;
    }
    return !error;
}

std::filesystem::path PackGenerator::generate(const SynthProfile& profile, const std::filesystem::path& into,
                                              unsigned threads, Overwrite overwrite) {
    // Refused before the work of rendering, and again under the pack's lock.
    const std::filesystem::path folder = into / profile.id;
    std::error_code error;
    if (overwrite == Overwrite::generatedPacks &&
        std::filesystem::symlink_status(folder, error).type() != std::filesystem::file_type::not_found) {
        if (!isGeneratedPack(folder)) throw StagedPackFolder::Refused(folder);
    }
    return write(profile, renderTakes(profile, threads), into, overwrite);
}

std::filesystem::path PackGenerator::write(const SynthProfile& profile, const std::vector<Take>& takes,
                                           const std::filesystem::path& into, Overwrite overwrite) {
    StagedPackFolder staged(into / profile.id, overwrite == Overwrite::anything
                                                   ? StagedPackFolder::MayReplace([](const auto&) { return true; })
                                                   : StagedPackFolder::MayReplace(isGeneratedPack));
    for (const Take& take : takes) {
        WAVWriter::write(take.left, std::span<const float>(take.right), 48000, staged.folder() / take.name);
    }
    manifest(profile, takes).write(staged.folder() / PackManifest::fileName);
    staged.commit();
    return into / profile.id;
}

} // namespace tobrin
