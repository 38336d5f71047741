#pragma once

#include "TobrinKit/Packs/PackManifest.h"

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

// Turns a community keyboard-sound pack (a folder with "config.json", or a
// zip of one; see CommunityConfig) into a pack folder of this program: every
// key's sound decoded, cut from the sprite where it is one, its lead-in
// silence trimmed, levelled with one gain for the whole pack so it sits near
// the built-in packs, and written as a 16-bit 48 kHz WAV beside a pack.json.
//
// Key identity. The engine plays a key the take at Voicing::variant(key, n)
// of its group's list of n takes. Each group's list is laid out so that as
// many of the source's keys as possible land on their own sound: the list
// length is chosen, from the number of distinct sounds of the group up to
// maxListLength, to maximise the keys whose slot holds their sound (sounds
// repeat in the list; each file is decoded once). Release lists use the same
// slots, so a key's release belongs to its press. Keys the source does not
// name play whatever their slot holds. The sounds are the medium tier; the
// loader derives the others.
//
// Off the audio thread; calls for different destinations may run at once.
class PackImporter {
public:
    PackImporter() = delete;

    // The source is not a pack that can be imported; what() says why.
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    struct Result {
        std::filesystem::path folder;
        PackManifest manifest;
        std::size_t keys = 0;           // keys with a press sound
        std::size_t keysOnOwnSound = 0; // of those, keys that play the sound the source gives them
        std::size_t files = 0;          // sound files written
        // What was not imported and why, one line each.
        std::vector<std::string> skipped;
    };

    enum class Overwrite { importedPacks, anything };

    static constexpr std::string_view kind = "Imported";
    static constexpr double sampleRate = 48000;
    // Lead-in kept before a take's onset, the first sample within 20 dB of
    // its peak. Not lower: lossy codecs smear a click's attack forward as
    // pre-echo, a millisecond or more at −30 dB, which is latency, not sound.
    static constexpr double leadInSeconds = 0.0005;
    static constexpr float onsetRelativeLevel = 0.1f; // −20 dB
    // A key's sound is cut to this length (with a short fade): longer files
    // are whole songs, not key strokes, and would not fit the loader's budget.
    static constexpr double maxTakeSeconds = 1.0;
    static constexpr std::size_t maxListLength = 512;
    // The level of the median alpha press take's peak (the built-in packs
    // level their loudest alpha take to the same value), and the highest
    // peak any take may reach.
    static constexpr float referencePeak = 0.316f;
    static constexpr float peakCeiling = 0.891f;

    // Whether `entry` may be a community pack: a folder with a config.json
    // and no pack.json, or a regular file named *.zip. Follows links.
    static bool isCommunityPack(const std::filesystem::path& entry);

    // Imports `source` into the pack folder `destination`, whose name becomes
    // the pack's id, through a StagedPackFolder: the previous pack there stays
    // until the new one is complete. Unless told to overwrite anything, only
    // a pack this importer wrote (isImportedPack) is replaced. Throws Error
    // (not a pack, unsupported config, no usable sound, too large),
    // StagedPackFolder::Refused, or file-system errors.
    static Result import(const std::filesystem::path& source, const std::filesystem::path& destination,
                         Overwrite overwrite = Overwrite::importedPacks);

    // A folder (not a link) whose pack.json decodes with kind "Imported" and
    // the folder's name as id, holding nothing but it and regular files it lists.
    static bool isImportedPack(const std::filesystem::path& folder);

    // A folder name for a pack name: lower-case ASCII letters and digits,
    // other runs turned into one "-", at most 64 bytes; "pack" if nothing is left.
    static std::string idFor(std::string_view name);
};

} // namespace tobrin
