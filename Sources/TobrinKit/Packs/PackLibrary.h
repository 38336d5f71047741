#pragma once

#include "TobrinKit/Packs/PackInfo.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace tobrin {

// Finds the sound packs on the machine: the built-in packs and the user's own
// packs folder. Only manifests are read here; audio is decoded when a pack is
// loaded (LoadedPack). No state: every call looks at the disk afresh, from
// any thread, and reads the environment (TOBRIN_PACKS, XDG_DATA_HOME, HOME).
class PackLibrary {
public:
    PackLibrary() = delete;

    // What userPacksDirectory() throws when the user has no home folder.
    class NoUserFolder : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // $XDG_DATA_HOME/Tobrin/Packs, with ~/.local/share when XDG_DATA_HOME is
    // unset or not absolute (~ from HOME, else the user database). The folder
    // need not exist. Throws NoUserFolder when there is no home folder at all.
    static std::filesystem::path userPacksDirectory();

    // The folder of the built-in packs, the first of: $TOBRIN_PACKS (not
    // checked for existence); the installed resource folder
    // <prefix>/share/tobrin/Packs next to the running executable's
    // <prefix>/bin; the folder a build tree generates them into. Nothing
    // when none of them applies.
    static std::optional<std::filesystem::path> bundledPacksDirectory();

    // The resource folder of an installation whose executable is `executable`,
    // when it exists.
    static std::optional<std::filesystem::path> installedPacksDirectory(const std::filesystem::path& executable);

    // Asked about an entry of the user's folder that has no pack.json: a
    // layer above may turn it into a pack somewhere else (a community pack
    // converted into a cache, PackImport) and return that pack, or nothing.
    // It must not throw.
    using Converter = std::function<std::optional<PackInfo>(const std::filesystem::path& entry)>;

    // Every pack of both folders, merged by id (a user pack replaces a
    // built-in one) and sorted: built-in packs first, then by name
    // (compareNames). Entries of the user's folder without a pack.json go
    // to `convert` when one is given. Never fails: unreadable folders,
    // broken manifests and a user without a home folder leave out what
    // they concern.
    static std::vector<PackInfo> discover(const Converter& convert = {});

    // The packs directly inside one folder (not hidden, with a readable
    // pack.json, or what `convert` makes of an entry without one), in the
    // order of their folder names.
    static std::vector<PackInfo> discover(const std::filesystem::path& folder, bool bundled,
                                          const Converter& convert = {});

    // The order people expect of names in a list: the collation of the
    // user's locale (LC_ALL, LC_COLLATE, LANG; the root collation for C and
    // POSIX), runs of digits compared by value ("Pack 2" before "Pack 10").
    // Negative, zero or positive as `a` sorts before, with or after `b`;
    // zero only for identical texts.
    static int compareNames(std::string_view a, std::string_view b);
};

} // namespace tobrin
