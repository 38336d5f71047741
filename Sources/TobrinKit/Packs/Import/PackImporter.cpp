// Importing a community pack: the key map, decoding and cutting, levelling,
// the per-group lists and writing the pack.
#include "TobrinKit/Packs/Import/PackImporter.h"

#include "TobrinKit/Building/WAVWriter.h"
#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Engine/Core/Tier.h"
#include "TobrinKit/Engine/Samples/SoundReader.h"
#include "TobrinKit/Engine/Voicing.h"
#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Input/LinuxKeyCode.h"
#include "TobrinKit/Packs/Import/CommunityConfig.h"
#include "TobrinKit/Packs/Import/ScanCodes.h"
#include "TobrinKit/Packs/Import/ZipArchive.h"
#include "TobrinKit/Packs/Loading/ConfinedFolder.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackError.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <tuple>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

namespace fs = std::filesystem;
using Segment = CommunityConfig::Segment;

[[noreturn]] void fail(const std::string& message) { throw PackImporter::Error(message); }

// A sound of the source: a whole file, or a segment of a sprite.
struct SoundRef {
    std::string file;
    std::optional<Segment> segment;

    friend bool operator<(const SoundRef& a, const SoundRef& b) {
        const auto key = [](const SoundRef& s) {
            return std::tuple(s.file, s.segment.has_value(), s.segment ? s.segment->startMs : 0.0,
                              s.segment ? s.segment->durationMs : 0.0);
        };
        return key(a) < key(b);
    }
};

struct KeySounds {
    std::optional<SoundRef> press;
    std::optional<SoundRef> release;
    bool pressDecided = false;
    bool releaseDecided = false;
    // The entries they come from, as messages name them.
    std::string pressFrom;
    std::string releaseFrom;
};

struct Take {
    std::vector<float> left;
    std::vector<float> right; // empty for mono
    float peak = 0;
};

struct Decoded {
    std::vector<float> left;
    std::vector<float> right; // empty for mono
};

std::string code(std::uint32_t scanCode) { return "key " + std::to_string(scanCode); }

// A path the pack folder may hold: relative, without ".." components.
bool isConfined(const std::string& path) {
    if (path.empty() || path.starts_with('/')) return false;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (path.substr(start, end - start) == "..") return false;
        start = end + 1;
    }
    return true;
}

std::string readConfig(const ConfinedFolder& folder) {
    ConfinedFolder::File file;
    try {
        file = folder.open(CommunityConfig::fileName);
    } catch (const std::system_error& error) {
        fail("no readable config.json: " + error.code().message());
    }
    struct stat status {};
    if (::fstat(file.descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) fail("config.json is not a file");
    if (std::uintmax_t(status.st_size) > CommunityConfig::maxFileBytes) fail("config.json is larger than 1 MiB");
    std::string text;
    char chunk[16384];
    while (text.size() <= CommunityConfig::maxFileBytes) {
        const ssize_t got = ::read(file.descriptor(), chunk, sizeof chunk);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            fail(std::string("cannot read config.json: ") + std::strerror(errno));
        }
        text.append(chunk, std::size_t(got));
    }
    return text;
}

// Every engine key code a Linux keyboard can produce that the engine's
// tables know: the keys a version 2 pack's fallback sounds serve.
std::vector<std::uint16_t> keyboardKeys() {
    std::set<std::uint16_t> keys;
    for (std::uint16_t linuxCode = 1; linuxCode < LinuxKeyCode::count; ++linuxCode) {
        const std::uint16_t key = LinuxKeyCode::toKeyCode(linuxCode);
        if (key < LinuxKeyCode::unmappedBase) keys.insert(key);
    }
    return {keys.begin(), keys.end()};
}

// One file of a range, chosen once per key from the key's code.
std::optional<std::string> pick(const std::string& name, std::uint16_t key) {
    const std::vector<std::string> files = expandRange(name);
    if (files.empty()) return std::nullopt;
    SplitMix64 random(0x5EED0000ULL + key);
    return files[random.next() % files.size()];
}

// The key map: for every engine key, its press and release sounds.
std::map<std::uint16_t, KeySounds> mapKeys(const CommunityConfig& config, std::vector<std::string>& skipped) {
    struct Resolved {
        std::uint16_t key;
        bool isAlias;
        const CommunityConfig::Entry* entry;
    };
    std::vector<Resolved> resolved;
    for (const auto& entry : config.entries) {
        const auto linuxKey = ScanCodes::toLinux(entry.scanCode);
        if (!linuxKey) {
            skipped.push_back(code(entry.scanCode) + ": not a key code");
            continue;
        }
        resolved.push_back({LinuxKeyCode::toKeyCode(linuxKey->code), linuxKey->isAlias, &entry});
    }
    // Scan codes before raw Linux codes for the same key, then in numeric order.
    std::stable_sort(resolved.begin(), resolved.end(), [](const Resolved& a, const Resolved& b) {
        return std::tuple(a.isAlias, a.entry->scanCode) < std::tuple(b.isAlias, b.entry->scanCode);
    });

    std::map<std::uint16_t, KeySounds> keys;
    for (const Resolved& item : resolved) {
        const auto& entry = *item.entry;
        KeySounds& sounds = keys[item.key];
        bool& decided = entry.isRelease ? sounds.releaseDecided : sounds.pressDecided;
        const std::string name = code(entry.scanCode) + (entry.isRelease ? "-up" : "");
        if (decided) {
            skipped.push_back(name + ": another entry names the same key");
            continue;
        }
        decided = true;
        std::optional<SoundRef> sound;
        if (entry.segment) {
            sound = SoundRef{config.sound, entry.segment};
        } else if (entry.file) {
            const auto file = pick(*entry.file, item.key);
            if (!file) {
                skipped.push_back(name + ": unreadable range in \"" + entry.file->substr(0, 200) + "\"");
                continue;
            }
            sound = SoundRef{*file, std::nullopt};
        } else {
            skipped.push_back(name + ": no sound (null)");
            continue;
        }
        (entry.isRelease ? sounds.release : sounds.press) = sound;
        (entry.isRelease ? sounds.releaseFrom : sounds.pressFrom) = name;
    }

    // Version 2 multi: keys without an entry take "sound" and "soundup".
    if (config.version == 2 && config.layout == CommunityConfig::Layout::multi) {
        for (std::uint16_t key : keyboardKeys()) {
            KeySounds& sounds = keys[key];
            if (!sounds.pressDecided) {
                if (auto file = pick(config.sound, key)) sounds.press = SoundRef{*file, std::nullopt};
                sounds.pressFrom = "\"sound\"";
            }
            if (!sounds.releaseDecided && config.soundUp) {
                if (auto file = pick(*config.soundUp, key)) sounds.release = SoundRef{*file, std::nullopt};
                sounds.releaseFrom = "\"soundup\"";
            }
        }
    }
    return keys;
}

// Decodes the files the key map names, each once, within the loader's budget.
class Decoder {
public:
    explicit Decoder(const ConfinedFolder& folder) : folder_(folder) {}

    // The decoded file, or why it cannot be used.
    const Decoded* get(const std::string& name, std::string& reason) {
        if (auto found = files_.find(name); found != files_.end()) {
            reason = found->second.second;
            return found->second.first ? &*found->second.first : nullptr;
        }
        auto& [decoded, why] = files_[name];
        try {
            decoded = decode(name);
        } catch (const std::exception& error) {
            why = error.what();
        }
        reason = why;
        return decoded ? &*decoded : nullptr;
    }

private:
    Decoded decode(const std::string& name) {
        if (!isConfined(name)) throw std::runtime_error("path leads out of the pack");
        ConfinedFolder::File file;
        try {
            file = folder_.open(name);
        } catch (const std::system_error& error) {
            if (error.code() == std::errc::cross_device_link) throw std::runtime_error("path leads out of the pack");
            throw std::runtime_error(error.code().message());
        }
        struct stat status {};
        if (::fstat(file.descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) {
            throw std::runtime_error("not a regular file");
        }
        Decoded decoded;
        SoundReader reader(file.descriptor(), name, PackImporter::sampleRate);
        const bool mono = reader.isMono();
        const std::size_t frameLimit = (LoadedPack::memoryBudget - std::min(bytes_, LoadedPack::memoryBudget)) / 8;
        try {
            reader.read(
                [&](const float* left, const float* right, std::size_t frames) {
                    decoded.left.insert(decoded.left.end(), left, left + frames);
                    if (!mono) decoded.right.insert(decoded.right.end(), right, right + frames);
                },
                frameLimit);
        } catch (const SoundReader::TooLong&) {
            throw std::runtime_error("the pack's sounds are too long together (over 96 MiB decoded)");
        }
        bytes_ += decoded.left.size() * 8;
        return decoded;
    }

    const ConfinedFolder& folder_;
    std::map<std::string, std::pair<std::optional<Decoded>, std::string>> files_;
    std::size_t bytes_ = 0;
};

// Cuts, trims and caps the takes of the key map, each distinct sound once.
class Cutter {
public:
    explicit Cutter(Decoder& decoder) : decoder_(decoder) {}

    // The take's index, or nothing with a line added to `skipped`.
    std::optional<std::size_t> take(const SoundRef& sound, const std::string& key, std::vector<std::string>& skipped) {
        if (auto found = indices_.find(sound); found != indices_.end()) {
            if (!found->second) report(sound, key, reasons_[sound], skipped);
            return found->second;
        }
        std::string reason;
        std::optional<std::size_t> index;
        if (const Decoded* decoded = decoder_.get(sound.file, reason)) {
            if (auto cut = this->cut(*decoded, sound, reason)) {
                takes_.push_back(std::move(*cut));
                index = takes_.size() - 1;
            }
        }
        indices_[sound] = index;
        if (!index) {
            reasons_[sound] = reason;
            report(sound, key, reason, skipped);
        }
        return index;
    }

    std::vector<Take>& takes() { return takes_; }
    std::size_t segmentsCut() const { return segmentsCut_; }

private:
    // File-level reasons once per file; segment reasons per key.
    void report(const SoundRef& sound, const std::string& key, const std::string& reason,
                std::vector<std::string>& skipped) {
        const std::string shown = "\"" + sound.file.substr(0, 200) + "\"";
        if (sound.segment) {
            skipped.push_back(key + ": " + reason + " (" + shown + ")");
        } else if (reportedFiles_.insert(sound.file).second) {
            skipped.push_back(shown + ": " + reason);
        }
    }

    std::optional<Take> cut(const Decoded& decoded, const SoundRef& sound, std::string& reason) {
        const std::size_t frames = decoded.left.size();
        std::size_t begin = 0;
        std::size_t end = frames;
        if (sound.segment) {
            const double perMs = PackImporter::sampleRate / 1000.0;
            begin = std::size_t(std::llround(sound.segment->startMs * perMs));
            const std::size_t length = std::size_t(std::llround(sound.segment->durationMs * perMs));
            if (begin >= frames) {
                reason = "segment starts after the end of the file";
                return std::nullopt;
            }
            end = std::min(frames, begin + length);
            if (begin + length > frames) ++segmentsCut_;
        }
        const bool stereo = !decoded.right.empty();
        const auto level = [&](std::size_t i) {
            return std::max(std::abs(decoded.left[i]), stereo ? std::abs(decoded.right[i]) : 0.0f);
        };
        float peak = 0;
        for (std::size_t i = begin; i < end; ++i) peak = std::max(peak, level(i));
        if (!(peak > 1e-5f)) {
            reason = "silent";
            return std::nullopt;
        }
        // The lead-in: everything before the onset but half a millisecond,
        // or it would be latency on every key.
        std::size_t onset = begin;
        while (onset < end && level(onset) < peak * PackImporter::onsetRelativeLevel) ++onset;
        const auto leadIn = std::size_t(PackImporter::leadInSeconds * PackImporter::sampleRate);
        begin = std::max(begin, onset >= leadIn ? onset - leadIn : 0);

        const auto maxFrames = std::size_t(PackImporter::maxTakeSeconds * PackImporter::sampleRate);
        const bool capped = end - begin > maxFrames;
        if (capped) end = begin + maxFrames;

        Take take;
        take.left.assign(decoded.left.begin() + std::ptrdiff_t(begin), decoded.left.begin() + std::ptrdiff_t(end));
        if (stereo) {
            take.right.assign(decoded.right.begin() + std::ptrdiff_t(begin),
                              decoded.right.begin() + std::ptrdiff_t(end));
        }
        if (capped) {
            // 10 ms fade, so the cut does not click.
            const std::size_t fade = std::min<std::size_t>(480, take.left.size());
            for (std::size_t i = 0; i < fade; ++i) {
                const float gain = float(i) / float(fade);
                take.left[take.left.size() - 1 - i] *= gain;
                if (stereo) take.right[take.right.size() - 1 - i] *= gain;
            }
        }
        take.peak = peak;
        bytes_ += take.left.size() * 8;
        if (bytes_ > LoadedPack::memoryBudget) fail("the pack's sounds are too long together (over 96 MiB decoded)");
        return take;
    }

    Decoder& decoder_;
    std::map<SoundRef, std::optional<std::size_t>> indices_;
    std::map<SoundRef, std::string> reasons_;
    std::set<std::string> reportedFiles_;
    std::vector<Take> takes_;
    std::size_t bytes_ = 0;
    std::size_t segmentsCut_ = 0;
};

struct KeyTakes {
    std::uint16_t key;
    std::size_t press;
    std::optional<std::size_t> release;
};

struct GroupList {
    std::vector<std::size_t> press;
    std::optional<std::vector<std::size_t>> release;
    std::size_t keysOnOwnSound = 0;
};

// The slot layout described in the header.
GroupList layOut(const std::vector<KeyTakes>& keys) {
    std::vector<std::size_t> distinct;
    for (const KeyTakes& key : keys) distinct.push_back(key.press);
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());

    const auto slotsFor = [&](std::size_t length) {
        std::vector<std::pair<std::size_t, std::size_t>> slots; // slot, press take
        for (const KeyTakes& key : keys) slots.emplace_back(Voicing::variant(key.key, length), key.press);
        std::sort(slots.begin(), slots.end());
        return slots;
    };
    // Keys that hear their own sound when each slot plays its most common one.
    const auto score = [&](std::size_t length) {
        const auto slots = slotsFor(length);
        std::size_t total = 0;
        for (std::size_t i = 0; i < slots.size();) {
            std::size_t best = 0;
            std::size_t j = i;
            while (j < slots.size() && slots[j].first == slots[i].first) {
                std::size_t k = j;
                while (k < slots.size() && slots[k] == slots[j]) ++k;
                best = std::max(best, k - j);
                j = k;
            }
            total += best;
            i = j;
        }
        return total;
    };

    std::size_t length = distinct.size();
    if (distinct.size() > 1) {
        std::size_t bestScore = 0;
        for (std::size_t candidate = distinct.size(); candidate <= PackImporter::maxListLength; ++candidate) {
            const std::size_t s = score(candidate);
            if (s > bestScore) {
                bestScore = s;
                length = candidate;
            }
            if (s == keys.size()) break;
        }
    }

    GroupList list;
    std::vector<std::optional<std::size_t>> owner(length); // a key index per slot
    std::vector<std::optional<std::size_t>> slotTake(length);
    {
        const auto slots = slotsFor(length);
        for (std::size_t i = 0; i < slots.size();) {
            std::size_t best = 0, bestTake = slots[i].second, j = i;
            while (j < slots.size() && slots[j].first == slots[i].first) {
                std::size_t k = j;
                while (k < slots.size() && slots[k] == slots[j]) ++k;
                if (k - j > best) {
                    best = k - j;
                    bestTake = slots[j].second;
                }
                j = k;
            }
            slotTake[slots[i].first] = bestTake;
            i = j;
        }
    }
    // Slots no key lands on: first the sounds no slot holds yet, so every
    // sound of the group stays in the pack, then the sounds in turn.
    std::set<std::size_t> unplaced(distinct.begin(), distinct.end());
    for (const auto& take : slotTake) {
        if (take) unplaced.erase(*take);
    }
    auto next = unplaced.begin();
    std::size_t turn = 0;
    for (auto& take : slotTake) {
        if (take) continue;
        if (next != unplaced.end()) {
            take = *next++;
        } else {
            take = distinct[turn++ % distinct.size()];
        }
    }
    for (const auto& take : slotTake) list.press.push_back(*take);
    for (const KeyTakes& key : keys) list.keysOnOwnSound += list.press[Voicing::variant(key.key, length)] == key.press;

    // Releases by slot: the release of a key that plays its own sound there,
    // else the group's most common release.
    std::map<std::size_t, std::size_t> releaseCounts;
    for (const KeyTakes& key : keys) {
        if (key.release) ++releaseCounts[*key.release];
    }
    if (releaseCounts.empty()) return list;
    const std::size_t common =
        std::max_element(releaseCounts.begin(), releaseCounts.end(), [](const auto& a, const auto& b) {
            return a.second < b.second;
        })->first;
    std::vector<std::size_t> releases(length, common);
    std::vector<bool> set(length, false);
    for (const KeyTakes& key : keys) {
        const std::size_t slot = Voicing::variant(key.key, length);
        if (!set[slot] && key.release && key.press == list.press[slot]) {
            releases[slot] = *key.release;
            set[slot] = true;
        }
    }
    list.release = std::move(releases);
    return list;
}

// A private folder for unpacking a zip, removed with the object.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (fs::temp_directory_path() / "tobrin-import-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) {
            throw fs::filesystem_error("cannot make a temporary folder", pattern,
                                       std::error_code(errno, std::generic_category()));
        }
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

bool isZip(const fs::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return extension == ".zip";
}

} // namespace

bool PackImporter::isCommunityPack(const fs::path& entry) {
    std::error_code error;
    if (fs::is_directory(entry, error)) {
        return fs::exists(entry / CommunityConfig::fileName, error) &&
               !fs::exists(entry / PackManifest::fileName, error);
    }
    return fs::is_regular_file(entry, error) && isZip(entry);
}

std::string PackImporter::idFor(std::string_view name) {
    std::string id;
    for (char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) && u < 0x80) {
            id += char(std::tolower(u));
        } else if (!id.empty() && id.back() != '-') {
            id += '-';
        }
        if (id.size() >= 64) break;
    }
    while (!id.empty() && id.back() == '-') id.pop_back();
    return id.empty() ? "pack" : id;
}

bool PackImporter::isImportedPack(const fs::path& folder) {
    std::error_code error;
    if (fs::symlink_status(folder, error).type() != fs::file_type::directory || error) return false;
    if (fs::symlink_status(folder / PackManifest::fileName, error).type() != fs::file_type::regular) return false;
    PackManifest manifest;
    try {
        manifest = PackManifest::read(folder);
    } catch (const std::exception&) {
        return false;
    }
    fs::path name = folder;
    while (!name.has_filename() && name.has_relative_path()) name = name.parent_path();
    if (manifest.kind != kind || manifest.id != name.filename().string()) return false;
    std::set<std::string> listed{std::string(PackManifest::fileName)};
    for (const auto& [groupName, group] : manifest.groups) {
        for (const auto& [tier, paths] : group.down) listed.insert(paths.begin(), paths.end());
        if (group.up) listed.insert(group.up->begin(), group.up->end());
    }
    for (fs::directory_iterator entry(folder, error), end; entry != end; entry.increment(error)) {
        if (error) return false;
        if (!listed.contains(entry->path().filename().string())) return false;
        if (entry->symlink_status(error).type() != fs::file_type::regular || error) return false;
    }
    return !error;
}

PackImporter::Result PackImporter::import(const fs::path& source, const fs::path& destination, Overwrite overwrite) {
    std::error_code error;
    if (overwrite == Overwrite::importedPacks &&
        fs::symlink_status(destination, error).type() != fs::file_type::not_found && !isImportedPack(destination)) {
        throw StagedPackFolder::Refused(destination);
    }

    Result result;
    std::optional<TemporaryFolder> unpacked;
    fs::path folder = source;
    if (!fs::is_directory(source, error)) {
        if (!fs::is_regular_file(source, error)) fail("not a folder or a zip file");
        unpacked.emplace();
        try {
            ZipArchive::Result zip = ZipArchive::extract(source, unpacked->path(), ZipArchive::Budget{});
            folder = zip.pack;
            for (std::string& line : zip.skipped) result.skipped.push_back("archive entry " + line);
        } catch (const ZipArchive::Error& failure) {
            fail(failure.what());
        }
    }

    std::optional<ConfinedFolder> confined;
    try {
        confined.emplace(folder);
    } catch (const std::system_error& failure) {
        fail(failure.code().message());
    }
    CommunityConfig config;
    try {
        config = CommunityConfig::decode(readConfig(*confined));
    } catch (const CommunityConfig::DecodeError& failure) {
        fail(std::string("config.json: ") + failure.what());
    }
    result.skipped.insert(result.skipped.end(), config.skipped.begin(), config.skipped.end());
    if (config.version == 2 && config.layout == CommunityConfig::Layout::single) {
        result.skipped.push_back("\"soundup\": not used by a single-file pack");
    }

    const std::map<std::uint16_t, KeySounds> keys = mapKeys(config, result.skipped);
    Decoder decoder(*confined);
    Cutter cutter(decoder);
    std::map<KeyGroup, std::vector<KeyTakes>> groups;
    for (const auto& [key, sounds] : keys) {
        if (!sounds.press) continue;
        const auto press = cutter.take(*sounds.press, sounds.pressFrom, result.skipped);
        if (!press) continue;
        std::optional<std::size_t> release;
        if (sounds.release) release = cutter.take(*sounds.release, sounds.releaseFrom, result.skipped);
        groups[KeyLayout::group(key)].push_back({key, *press, release});
        ++result.keys;
    }
    if (cutter.segmentsCut() > 0) {
        result.skipped.push_back("segments cut at the end of the sound file, where they ran past it: " +
                                 std::to_string(cutter.segmentsCut()));
    }
    std::vector<Take>& takes = cutter.takes();
    if (result.keys == 0) {
        std::string why;
        for (std::size_t i = 0; i < std::min<std::size_t>(3, result.skipped.size()); ++i) {
            why += (i ? "; " : " (") + result.skipped[i];
        }
        fail("no key has a usable sound" + why + (why.empty() ? "" : ")"));
    }

    // One gain for the pack keeps its balance between keys and groups.
    std::vector<float> reference;
    const auto alpha = groups.find(KeyGroup::alpha);
    for (const auto& [group, members] : groups) {
        if (alpha != groups.end() && group != KeyGroup::alpha) continue;
        for (const KeyTakes& key : members) reference.push_back(takes[key.press].peak);
    }
    std::nth_element(reference.begin(), reference.begin() + std::ptrdiff_t(reference.size() / 2), reference.end());
    float loudest = 0;
    for (const Take& take : takes) loudest = std::max(loudest, take.peak);
    const float gain = std::min(referencePeak / reference[reference.size() / 2], peakCeiling / loudest);
    for (Take& take : takes) {
        for (float& v : take.left) v *= gain;
        for (float& v : take.right) v *= gain;
    }

    // Takes no list uses (a release whose press failed) are not written.
    PackManifest manifest;
    manifest.formatVersion = 1;
    manifest.id = destination.filename().string();
    manifest.name = config.name;
    manifest.kind = kind;
    manifest.summary = config.description;
    manifest.author = config.author;
    manifest.license = config.license;
    std::map<std::size_t, std::string> names;
    const auto nameOf = [&](std::size_t take) {
        auto [found, added] = names.try_emplace(take);
        if (added) {
            char text[32];
            std::snprintf(text, sizeof text, "sound-%03zu.wav", names.size());
            found->second = text;
        }
        return found->second;
    };
    for (const auto& [group, members] : groups) {
        const GroupList list = layOut(members);
        result.keysOnOwnSound += list.keysOnOwnSound;
        PackManifest::Group& entry = manifest.groups[std::string(rawValue(group))];
        auto& medium = entry.down[std::string(name(Tier::medium))];
        for (std::size_t take : list.press) medium.push_back(nameOf(take));
        if (list.release) {
            entry.up.emplace();
            for (std::size_t take : *list.release) entry.up->push_back(nameOf(take));
        }
    }

    StagedPackFolder staged(destination, overwrite == Overwrite::anything
                                             ? StagedPackFolder::MayReplace([](const auto&) { return true; })
                                             : StagedPackFolder::MayReplace(isImportedPack));
    for (const auto& [take, file] : names) {
        const Take& sound = takes[take];
        std::optional<std::span<const float>> right;
        if (!sound.right.empty()) right = std::span<const float>(sound.right);
        WAVWriter::write(sound.left, right, std::int64_t(sampleRate), staged.folder() / file);
    }
    manifest.write(staged.folder() / PackManifest::fileName);
    staged.commit();

    result.folder = destination;
    result.files = names.size();
    result.manifest = std::move(manifest);
    return result;
}

} // namespace tobrin
