// tobrin-pack generate [DIR] [--threads N]
#include "Verbs.h"

#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Synth/PackGenerator.h"
#include "TobrinKit/Synth/SynthProfile.h"

#include <charconv>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>

namespace tobrin::pack {

int runGenerate(std::span<const std::string_view> arguments) {
    std::optional<std::filesystem::path> folder;
    unsigned threads = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--threads") {
            const std::string_view value = i + 1 < arguments.size() ? arguments[++i] : std::string_view();
            const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), threads);
            if (value.empty() || error != std::errc() || end != value.data() + value.size() || threads == 0) {
                printError("--threads needs a positive number");
                return exitUsage;
            }
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
    if (!folder) folder = PackLibrary::userPacksDirectory();

    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        try {
            const std::filesystem::path written = PackGenerator::generate(profile, *folder, threads);
            std::printf("%s\t%s\n", profile.id.c_str(), written.c_str());
        } catch (const std::exception& error) {
            printError("cannot generate " + profile.id + ": " + error.what());
            return exitFailure;
        }
    }
    return exitSuccess;
}

} // namespace tobrin::pack
