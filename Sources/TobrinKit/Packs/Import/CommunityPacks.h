#pragma once

#include "TobrinKit/Packs/PackInfo.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

// Community packs dropped into the user's packs folder (a folder with a
// config.json, or a .zip of one) listed and played like any other pack: each
// is converted once by PackImporter into a cache,
// $XDG_CACHE_HOME/tobrin/community/community-<name>, and converted again only
// when the source changes (its files' names, sizes and modification times,
// and the importer's version). A source that cannot be converted is skipped
// with a message and never stops the discovery of the others; the same
// broken source is not tried again until it changes. Same threading as
// PackLibrary: no state, any thread; conversions of one pack take turns
// through its StagedPackFolder.
class CommunityPacks {
public:
    CommunityPacks() = delete;

    // Receives one line per source skipped: its path and why.
    using Report = std::function<void(const std::string& message)>;

    // PackLibrary::discover() with community packs converted. By default a
    // skipped source is reported on standard error and in the system log.
    static std::vector<PackInfo> discover(const Report& report = logSkipped);

    // The converted pack of one entry, from the cache when it is current;
    // nothing (and a report) when the entry is not a community pack or does
    // not convert.
    static std::optional<PackInfo> convert(const std::filesystem::path& entry, const Report& report);

    // $XDG_CACHE_HOME/tobrin/community (~/.cache when unset or relative), or
    // nothing without a home folder.
    static std::optional<std::filesystem::path> cacheDirectory();

    static void logSkipped(const std::string& message);

    // Bumped when the importer's output changes, so caches are redone.
    static constexpr std::string_view converterVersion = "1";
};

} // namespace tobrin
