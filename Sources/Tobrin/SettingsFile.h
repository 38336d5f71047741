#pragma once

#include "TobrinKit/Engine/EngineSettings.h"

#include <filesystem>
#include <optional>
#include <string>

namespace tobrin::app {

// What Tobrin remembers between runs: the engine settings and the selected
// pack id.
struct StoredState {
    EngineSettings settings;
    std::optional<std::string> selectedPack;

    bool operator==(const StoredState&) const = default;
};

// The settings file, $XDG_CONFIG_HOME/tobrin/settings.json: one JSON object
// with "engineSettings" (the settings object) and "selectedPack" (text).
// Written whole through a temporary file renamed over it, so a reader (or a
// run after a crash) sees the old file or the new one, never a mix.
//
// A file that cannot be read or decoded is never overwritten: load() renames
// it aside as "settings.json.corrupt-<time>" (its name says why it is there)
// and keeps whatever part of it still decoded; the next save writes a fresh
// file. Stateless; one owner (the application's main thread).
class SettingsFile {
public:
    explicit SettingsFile(std::filesystem::path file);

    // $XDG_CONFIG_HOME/tobrin/settings.json, with ~/.config when
    // XDG_CONFIG_HOME is unset or not absolute.
    static std::filesystem::path defaultPath();

    struct Loaded {
        StoredState state;
        // Why the file was not used whole, for the log; empty when it was
        // fine or not there.
        std::string problem;
        // Where a bad file was moved, when it could be moved.
        std::optional<std::filesystem::path> keptAside;
    };

    // Never throws: a missing file gives the defaults quietly; a bad one the
    // defaults for what did not decode, with `problem` set.
    Loaded load() const;

    // Writes the whole file, creating its folder. Returns why it failed
    // (read-only folder, full disk, a folder in the way), or empty.
    std::string save(const StoredState& state) const;

    const std::filesystem::path& path() const { return file_; }

private:
    std::optional<std::filesystem::path> setAside() const;

    std::filesystem::path file_;
};

} // namespace tobrin::app
