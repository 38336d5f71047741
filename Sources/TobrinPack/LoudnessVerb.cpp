// tobrin-pack loudness FILE...
#include "Verbs.h"

#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Engine/Samples/SampleBuffer.h"

#include <cstdio>
#include <exception>
#include <optional>
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
            // Any format and rate the decoder reads, measured at 48 kHz.
            const SampleBuffer sound = SampleBuffer::load(file, 48000);
            const std::span<const float> left(sound.left(), sound.frames());
            std::optional<std::span<const float>> right;
            if (!sound.isMono()) right = std::span<const float>(sound.right(), sound.frames());
            const double lufs = Loudness::integrated(left, right, 48000);
            // Too short or too quiet to measure prints as -inf.
            std::printf("%.2f LUFS\t%s\n", lufs, file.c_str());
        } catch (const std::exception& error) {
            printError(file + ": " + error.what());
            status = exitFailure;
        }
    }
    return status;
}

} // namespace tobrin::pack
