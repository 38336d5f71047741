#pragma once

#include "TobrinKit/Building/Recorded/PackRecipe.h"
#include "TobrinKit/Engine/Samples/SampleBuffer.h"

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tobrin {

// Turns a PackRecipe into a finished pack folder: fetches each recording's
// preview into a cache (libcurl: http, https and file URLs), converts it
// with the ffmpeg program to 48 kHz float WAV, slices it (RecordingSlicer),
// writes the takes as 16-bit WAVs and the pack.json, then renders a typing
// demo of the pack and, when the demo is not at targetLoudness, writes the
// pack once more with the correction. The pack is built in a staging folder
// beside the target (StagedPackFolder) and swapped into place only when it
// is complete; the cache survives every failure.
//
// Static functions, off the audio thread. Progress goes to a log callback as
// text lines (a long download or conversion reports itself every few
// seconds); the callback never stops a build.
class RecordedPackBuilder {
public:
    RecordedPackBuilder() = delete;

    using Log = std::function<void(const std::string& line)>;

    // A download failed, or the target is in the way; what() names the URL
    // or the folder.
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    struct Settings {
        // Base address of the recordings' pages, for the credits.
        std::string site{PackRecipe::defaultSite};
    };

    static constexpr double rate = 48000.0;
    // The median press take's peak before the loudness correction, which
    // brings the first demo close to the target.
    static constexpr float referencePeak = 0.25f;
    static constexpr double targetLoudness = -28.0;
    // Recordings are cut to this length (a preview is a few minutes at most).
    static constexpr double maxRecordingSeconds = 20 * 60;

    // The converted recording in `cache` ("<id>.wav"), fetched ("<id>.ogg")
    // and converted when it is not there yet. Throws Error (download),
    // PackError::decode naming the preview when ffmpeg fails, or
    // std::system_error when ffmpeg cannot be started.
    static std::filesystem::path fetch(const PackRecipe::Source& source, const std::filesystem::path& cache,
                                       const Log& log = {});

    // fetch, then decode at `rate`: the part from the source's start to its end.
    static SampleBuffer load(const PackRecipe::Source& source, const std::filesystem::path& cache, const Log& log = {});

    // Builds the pack into the folder `into` (its name should be the
    // recipe's id). Replaces only an empty folder or a pack with the
    // recipe's id; anything else there throws Error and stays untouched.
    static void build(const PackRecipe& recipe, const std::filesystem::path& cache, const std::filesystem::path& into,
                      const Log& log, const Settings& settings);
    static void build(const PackRecipe& recipe, const std::filesystem::path& cache, const std::filesystem::path& into,
                      const Log& log = {}) {
        build(recipe, cache, into, log, Settings());
    }

    // Integrated loudness (LUFS) of the typing demo rendered with the pack
    // in `folder`.
    static double demoLoudness(const std::filesystem::path& folder);

    // Largest absolute sample of both channels.
    static float peak(const std::vector<float>& left, const std::vector<float>& right);
};

} // namespace tobrin
