// tobrin-pack build RECIPE.json [--cache DIR] [--out DIR]
#include "Verbs.h"

#include "TobrinKit/Building/Recorded/RecordedPackBuilder.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Packs/Import/CommunityPacks.h"
#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

namespace tobrin::pack {

int runBuild(std::span<const std::string_view> arguments) {
    std::optional<std::filesystem::path> recipeFile, cache, out;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--cache" || argument == "--out") {
            if (i + 1 >= arguments.size()) {
                printError("build: " + std::string(argument) + " needs a folder");
                return exitUsage;
            }
            (argument == "--cache" ? cache : out) = std::filesystem::path(arguments[++i]);
        } else if (!argument.empty() && argument[0] == '-') {
            printError("build: unknown option " + std::string(argument));
            return exitUsage;
        } else if (!recipeFile) {
            recipeFile = std::filesystem::path(argument);
        } else {
            printError("build takes one recipe");
            return exitUsage;
        }
    }
    if (!recipeFile) {
        printError("build needs a recipe file (see tobrin-pack --help)");
        return exitUsage;
    }

    PackRecipe recipe;
    try {
        recipe = PackRecipe::read(*recipeFile);
    } catch (const PackRecipe::DecodeError& error) {
        printError("bad recipe " + recipeFile->string() + ": " + error.what());
        return exitFailure;
    }
    if (!cache) {
        const auto folder = CommunityPacks::cacheDirectory();
        if (!folder) {
            printError("build: no home folder for the download cache. Name one: --cache DIR");
            return exitFailure;
        }
        cache = folder->parent_path() / "recordings";
    }
    if (!out) {
        try {
            out = PackLibrary::userPacksDirectory();
        } catch (const PackLibrary::NoUserFolder& error) {
            printError("build: " + std::string(error.what()) + ". Name the destination: --out DIR");
            return exitFailure;
        }
    }

    const std::filesystem::path target = *out / recipe.id;
    try {
        // Each line as it comes, so a long download or conversion shows it is alive.
        RecordedPackBuilder::build(recipe, *cache, target, [](const std::string& line) {
            std::printf("%s\n", printable(line, 1024).c_str());
            std::fflush(stdout);
        });
        return exitSuccess;
    } catch (const StagedPackFolder::Refused& error) {
        printError("build: " + error.target().string() +
                   " is in the way: it is not a pack built from this recipe, and nothing was changed. Choose another "
                   "folder with --out.");
    } catch (const std::exception& error) {
        printError("cannot build " + recipe.id + ": " + error.what() + " (the download cache " + cache->string() +
                   " is kept)");
    }
    return exitFailure;
}

} // namespace tobrin::pack
