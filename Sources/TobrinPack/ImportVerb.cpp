// tobrin-pack import SRC [DEST] [--replace]
#include "Verbs.h"

#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Packs/Import/PackImporter.h"
#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

namespace tobrin::pack {

int runImport(std::span<const std::string_view> arguments) {
    std::optional<std::filesystem::path> source;
    std::optional<std::filesystem::path> destination;
    auto overwrite = PackImporter::Overwrite::importedPacks;
    for (const std::string_view argument : arguments) {
        if (argument == "--replace") {
            overwrite = PackImporter::Overwrite::anything;
        } else if (!argument.empty() && argument[0] == '-') {
            printError("import: unknown option " + std::string(argument));
            return exitUsage;
        } else if (!source) {
            source = std::filesystem::path(argument);
        } else if (!destination) {
            destination = std::filesystem::path(argument);
        } else {
            printError("import takes a source and at most one destination");
            return exitUsage;
        }
    }
    if (!source) {
        printError("import needs a pack folder or zip file (see tobrin-pack --help)");
        return exitUsage;
    }
    if (!destination) {
        std::filesystem::path name = *source;
        while (!name.has_filename() && name.has_relative_path()) name = name.parent_path();
        try {
            destination = PackLibrary::userPacksDirectory() / PackImporter::idFor(name.stem().string());
        } catch (const PackLibrary::NoUserFolder& error) {
            printError("import: " + std::string(error.what()) + ". Name the destination: tobrin-pack import SRC DEST");
            return exitFailure;
        }
    }

    try {
        const PackImporter::Result result = PackImporter::import(*source, *destination, overwrite);
        std::printf("%s\t%s\n", printable(result.manifest.name).c_str(), printable(result.folder.string()).c_str());
        std::printf("%zu keys (%zu with the sound the source gives them), %zu sound files\n", result.keys,
                    result.keysOnOwnSound, result.files);
        for (const std::string& line : result.skipped) std::printf("skipped: %s\n", printable(line, 512).c_str());
        return exitSuccess;
    } catch (const StagedPackFolder::Refused& error) {
        printError("import: " + error.target().string() +
                   " is in the way: it is not a pack tobrin-pack imported, and nothing was changed. Choose another "
                   "destination, or run import with --replace to overwrite it.");
    } catch (const std::exception& error) {
        printError("cannot import " + source->string() + ": " + error.what());
    }
    return exitFailure;
}

} // namespace tobrin::pack
