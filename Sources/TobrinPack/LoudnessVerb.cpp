// tobrin-pack loudness FILE...
#include "Verbs.h"

#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Engine/Samples/SoundReader.h"

#include <cstdio>
#include <exception>
#include <cstddef>
#include <span>
#include <string>

namespace tobrin::pack {

int runLoudness(std::span<const std::string_view> arguments) {
    if (arguments.empty()) {
        printError("loudness needs at least one file");
        return exitUsage;
    }
    int status = exitSuccess;
    for (std::string_view argument : arguments) {
        const std::string file(argument);
        try {
            // Any format and rate the decoder reads, measured at 48 kHz as it
            // is decoded: memory stays a few chunks whatever the file's length.
            SoundReader reader(file, 48000);
            Loudness::Meter meter(!reader.isMono());
            reader.read(
                [&](const float* left, const float* right, std::size_t frames) { meter.add(left, right, frames); });
            const double lufs = meter.integrated();
            // Too short or too quiet to measure prints as -inf.
            std::printf("%.2f LUFS\t%s\n", lufs, printable(file).c_str());
        } catch (const std::exception& error) {
            printError(file + ": " + error.what());
            status = exitFailure;
        }
    }
    return status;
}

} // namespace tobrin::pack
