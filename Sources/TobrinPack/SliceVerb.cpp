// tobrin-pack slice RECORDING [--options JSON] [--json]
#include "Verbs.h"

#include "TobrinKit/Building/Recorded/PackRecipe.h"
#include "TobrinKit/Building/Recorded/RecordedPackBuilder.h"
#include "TobrinKit/Building/Recorded/RecordingSlicer.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Engine/Samples/SampleBuffer.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace tobrin::pack {

namespace {

// --options takes the JSON itself or, when it does not start with "{", a file holding it.
std::string optionsText(std::string_view argument) {
    if (argument.starts_with('{')) return std::string(argument);
    std::ifstream file{std::string(argument)};
    if (!file) throw PackRecipe::DecodeError("cannot read the options file " + std::string(argument));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

int runSlice(std::span<const std::string_view> arguments) {
    std::optional<std::string> recording;
    std::optional<std::string_view> optionsArgument;
    bool asJSON = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--json") {
            asJSON = true;
        } else if (argument == "--options") {
            if (i + 1 >= arguments.size()) {
                printError("slice: --options needs a JSON object or a file holding one");
                return exitUsage;
            }
            optionsArgument = arguments[++i];
        } else if (!argument.empty() && argument[0] == '-') {
            printError("slice: unknown option " + std::string(argument));
            return exitUsage;
        } else if (!recording) {
            recording = std::string(argument);
        } else {
            printError("slice takes one recording");
            return exitUsage;
        }
    }
    if (!recording) {
        printError("slice needs a recording (see tobrin-pack --help)");
        return exitUsage;
    }

    RecordingSlicer::Options options;
    try {
        if (optionsArgument) options = PackRecipe::decodeOptions(optionsText(*optionsArgument));
    } catch (const PackRecipe::DecodeError& error) {
        printError(std::string("slice: bad options: ") + error.what());
        return exitFailure;
    }

    const double rate = RecordedPackBuilder::rate;
    RecordingSlicer::Result result;
    try {
        const auto limit = std::size_t(RecordedPackBuilder::maxRecordingSeconds * rate);
        const SampleBuffer sound = SampleBuffer::load(*recording, rate, limit);
        result = RecordingSlicer::slice(std::span<const float>(sound.left(), sound.frames()),
                                        std::span<const float>(sound.right(), sound.frames()), rate, options);
    } catch (const SampleBuffer::TooLong&) {
        printError("cannot slice " + *recording + ": longer than 20 minutes");
        return exitFailure;
    } catch (const std::exception& error) {
        printError("cannot slice " + *recording + ": " + error.what());
        return exitFailure;
    }

    if (asJSON) {
        nlohmann::json document{{"rate", rate}, {"report", result.report}, {"hits", nlohmann::json::array()}};
        for (const auto& hit : result.hits) {
            document["hits"].push_back({{"onset", hit.onset},
                                        {"seconds", double(hit.onset) / rate},
                                        {"peak", hit.peak},
                                        {"energy", hit.energy},
                                        {"brightness", hit.brightness},
                                        {"decayMs", hit.decayMs},
                                        {"preActivity", hit.preActivity},
                                        {"clipped", hit.clipped},
                                        {"gapAfter", hit.gapAfter},
                                        {"isRelease", hit.isRelease},
                                        {"isBig", hit.isBig}});
        }
        std::printf("%s\n", document.dump(2).c_str());
        return exitSuccess;
    }
    std::printf("%-8s %10s %9s %7s %9s  %s\n", "hit", "onset", "seconds", "peak", "energy", "kind");
    for (std::size_t i = 0; i < result.hits.size(); ++i) {
        const auto& hit = result.hits[i];
        std::string kind = hit.isRelease ? "release" : "press";
        if (hit.isBig) kind += " big";
        if (hit.clipped) kind += " clipped";
        std::printf("%-8zu %10zu %9.4f %7.4f %9.4f  %s\n", i + 1, hit.onset, double(hit.onset) / rate, double(hit.peak),
                    double(hit.energy), kind.c_str());
    }
    std::printf("%s\n", result.report.c_str());
    return exitSuccess;
}

} // namespace tobrin::pack
