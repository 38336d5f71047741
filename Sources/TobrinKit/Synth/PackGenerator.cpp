#include "TobrinKit/Synth/PackGenerator.h"

#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Synth/KeySynth.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
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
    manifest.author = "Tobrin";
    manifest.license = "Proprietary. Bundled with Tobrin.";
    for (const Take& take : takes) {
        PackManifest::Group& group = manifest.groups[std::string(rawValue(take.group))];
        if (take.tier) {
            group.down[std::string(name(*take.tier))].push_back(take.name);
        } else {
            if (!group.up) group.up.emplace();
            group.up->push_back(take.name);
        }
    }
    return manifest;
}

std::filesystem::path PackGenerator::generate(const SynthProfile& profile, const std::filesystem::path& into,
                                              unsigned threads) {
    return write(profile, renderTakes(profile, threads), into);
}

std::filesystem::path PackGenerator::write(const SynthProfile& profile, const std::vector<Take>& takes,
                                           const std::filesystem::path& into) {
    namespace fs = std::filesystem;
    const fs::path folder = into / profile.id;
    fs::remove_all(folder);
    fs::create_directories(folder);
    for (const Take& take : takes) {
        WAVWriter::write(take.left, std::span<const float>(take.right), 48000, folder / take.name);
    }
    manifest(profile, takes).write(folder / PackManifest::fileName);
    return folder;
}

} // namespace tobrin
