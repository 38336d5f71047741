#pragma once

#include "TobrinKit/Building/Recorded/RecordingSlicer.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

// How to build a sound pack from recordings of real keyboards published on
// a sound-sharing site: which recordings (and, optionally, which ones for the
// Enter key), how to slice them, and the pack's identity. The recipe also
// writes the pack's attribution: every recording's title, author, page and
// licence. A value type; RecordedPackBuilder turns it into a pack folder.
struct PackRecipe {
    // One recording on the site.
    struct Source {
        std::int64_t freesoundID = 0; // its number on the site; names its page and cache files
        std::string user;
        std::string title;
        std::string license;
        std::string previewURL;      // the compressed preview that is downloaded
        std::optional<double> start; // seconds; absent: from the beginning
        std::optional<double> end;   // seconds; absent: to the end

        friend bool operator==(const Source&, const Source&) = default;

        // site + "/s/" + number + "/".
        std::string pageURL(std::string_view site = defaultSite) const;
        // "TITLE" by USER, PAGE (LICENSE)
        std::string creditLine(std::string_view site = defaultSite) const;
    };

    // What decode() throws: what() names the recipe field at fault, for
    // example `"sources[1].previewURL" must be a string, not number`.
    class DecodeError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // The site the recordings come from, for their page addresses (the
    // builder's setting, RecordedPackBuilder::Settings, defaults to it).
    static constexpr std::string_view defaultSite = "https://freesound.org";

    // Recipes are written by hand or by scripts; these bounds keep a broken
    // or hostile one cheap to refuse.
    static constexpr std::size_t maxFileBytes = 1 << 20;
    static constexpr std::size_t maxSources = 256;

    std::string id; // also the pack folder's name: checked to be a plain name
    std::string name;
    std::string kind;
    std::string summary;
    std::vector<Source> sources;
    std::optional<std::vector<Source>> enterSources;
    std::optional<RecordingSlicer::Options> options;

    friend bool operator==(const PackRecipe&, const PackRecipe&) = default;

    // `sources` then `enterSources`, the first source of each number only.
    std::vector<Source> credits() const;
    // "Recordings: " + the credit lines joined by "; " + ". Sliced and leveled for Tobrin."
    std::string licenseText(std::string_view site = defaultSite) const;

    // Required keys present with the right JSON type, at least one source,
    // options within their ranges; unknown keys are ignored. Throws DecodeError.
    static PackRecipe decode(std::string_view json);
    // Reads and decodes a recipe file; the file's problems (missing,
    // unreadable, too large) are DecodeErrors too, naming the file.
    static PackRecipe read(const std::filesystem::path& path);
    // Pretty-printed JSON; optional keys only when present, but an "options"
    // object with all thirteen keys.
    std::string encode() const;

    // The slicer's options from a JSON object: every key optional (a missing
    // one keeps its default), each checked like a recipe's. Throws DecodeError
    // naming the key as "options.KEY".
    static RecordingSlicer::Options decodeOptions(std::string_view json);
    static std::string encodeOptions(const RecordingSlicer::Options& options);
};

} // namespace tobrin
