#pragma once
// Packs written for a test: a manifest the test fills in and takes of one
// value each. For suites that link the kit and libsndfile.

#include "Support/SoundFiles.h"

#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/PackManifest.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tobrin::test {

// One pack folder on disk: sound files whose every sample is one value, so a
// decoded take tells by its first sample which file it came from.
class PackFolder {
public:
    explicit PackFolder(const std::filesystem::path& directory, std::string id = "test-pack",
                        std::string name = "Test Pack")
        : directory_(directory) {
        manifest_.id = std::move(id);
        manifest_.name = std::move(name);
        manifest_.kind = "test";
    }

    void sound(const std::string& path, float value, std::size_t frames = 480, int channels = 2, int rate = 48000) {
        writeSound(directory_ / path, std::vector<std::vector<float>>(channels, std::vector<float>(frames, value)),
                   rate);
    }
    void down(const std::string& group, const std::string& tier, std::vector<std::string> paths) {
        manifest_.groups[group].down[tier] = std::move(paths);
    }
    void up(const std::string& group, std::vector<std::string> paths) { manifest_.groups[group].up = std::move(paths); }
    void summary(std::string text) { manifest_.summary = std::move(text); }

    PackInfo info() {
        std::filesystem::create_directories(directory_);
        manifest_.write(directory_ / "pack.json");
        return PackInfo{manifest_.id, manifest_.name, manifest_.kind, std::nullopt, directory_, false};
    }
    std::shared_ptr<const LoadedPack> load(double sampleRate = 48000) { return LoadedPack::load(info(), sampleRate); }

    // The error a load fails with, as the user reads it.
    std::string loadError() {
        return errorOf([&] { load(); });
    }

private:
    std::filesystem::path directory_;
    PackManifest manifest_;
};

} // namespace tobrin::test
