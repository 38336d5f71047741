// tobrin-pack generate [DIR] [--threads N] [--replace]
#include "Verbs.h"

#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/StagedPackFolder.h"
#include "TobrinKit/Synth/PackGenerator.h"
#include "TobrinKit/Synth/SynthProfile.h"

#include <charconv>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

namespace tobrin::pack {

namespace {

void printInTheWay(const std::filesystem::path& folder) {
    printError("generate: " + folder.string() +
               " is in the way: it is not a pack tobrin-pack generated, and nothing was changed. Move it away, or "
               "run generate with --replace to overwrite it.");
}

} // namespace

int runGenerate(std::span<const std::string_view> arguments) {
    std::optional<std::filesystem::path> folder;
    unsigned threads = 0;
    auto overwrite = PackGenerator::Overwrite::generatedPacks;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--threads") {
            const std::string_view value = i + 1 < arguments.size() ? arguments[++i] : std::string_view();
            const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), threads);
            if (value.empty() || error != std::errc() || end != value.data() + value.size() || threads == 0) {
                printError("--threads needs a positive number");
                return exitUsage;
            }
        } else if (argument == "--replace") {
            overwrite = PackGenerator::Overwrite::anything;
        } else if (!argument.empty() && argument[0] == '-') {
            printError("generate: unknown option " + std::string(argument));
            return exitUsage;
        } else if (!folder) {
            folder = std::filesystem::path(argument);
        } else {
            printError("generate takes one folder");
            return exitUsage;
        }
    }
    if (!folder) {
        try {
            folder = PackLibrary::userPacksDirectory();
        } catch (const PackLibrary::NoUserFolder& error) {
            printError("generate: " + std::string(error.what()) + ". Name the folder: tobrin-pack generate DIR");
            return exitFailure;
        }
    }

    // Every folder in the way is named before anything is written.
    if (overwrite == PackGenerator::Overwrite::generatedPacks) {
        bool refused = false;
        for (const SynthProfile& profile : SynthProfile::starterPacks()) {
            const std::filesystem::path target = *folder / profile.id;
            std::error_code error;
            const auto type = std::filesystem::symlink_status(target, error).type();
            if (type != std::filesystem::file_type::not_found && !PackGenerator::isGeneratedPack(target)) {
                printInTheWay(target);
                refused = true;
            }
        }
        if (refused) return exitFailure;
    }

    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        try {
            const std::filesystem::path written = PackGenerator::generate(profile, *folder, threads, overwrite);
            std::printf("%s\t%s\n", printable(profile.id).c_str(), printable(written.string()).c_str());
        } catch (const StagedPackFolder::Refused& error) {
            printInTheWay(error.target());
            return exitFailure;
        } catch (const std::exception& error) {
            printError("cannot generate " + profile.id + ": " + error.what());
            return exitFailure;
        }
    }
    return exitSuccess;
}

} // namespace tobrin::pack
