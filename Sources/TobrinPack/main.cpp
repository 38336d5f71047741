// tobrin-pack: the pack authors' tool. Each verb lives in its own file and is
// listed once in the table below; --help is built from that table.
#include "Verbs.h"

#include "TobrinKit/Engine/Core/PrintableText.h"

#include <array>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

namespace tobrin::pack {

namespace {

constexpr std::array verbs = {
    Verb{"build", "RECIPE.json [--cache DIR] [--out DIR]",
         "build a pack from recordings of a real keyboard as the recipe says: download, convert (ffmpeg), slice, "
         "level to -28 LUFS; into DIR/<id> (default: your packs folder), downloads cached in DIR (default: "
         "$XDG_CACHE_HOME/tobrin/recordings)",
         runBuild},
    Verb{"generate", "[DIR] [--threads N] [--replace]",
         "write the five synthesized starter packs into DIR (default: your packs folder, "
         "$XDG_DATA_HOME/Tobrin/Packs); a pack's folder that tobrin-pack did not generate is left alone "
         "unless --replace says to overwrite it",
         runGenerate},
    Verb{"import", "SRC [DEST] [--replace]",
         "turn a community pack (a folder with config.json, or a zip of one) into a pack folder DEST (default: "
         "your packs folder, named after SRC); a folder tobrin-pack did not import is left alone unless --replace "
         "says to overwrite it",
         runImport},
    Verb{"loudness", "FILE...", "print each file's integrated loudness in LUFS, then its name", runLoudness},
    Verb{"play", "PACK_DIR [--text T] [--wpm N]",
         "type a demo text with the pack live through the sound server (TOBRIN_AUDIO chooses the output)", runPlay},
    Verb{"render", "PACK_DIR OUT.wav [--text T] [--wpm N]",
         "type a demo text with the pack into a 48 kHz stereo WAV file and print its loudness", runRender},
    Verb{"slice", "RECORDING [--options JSON] [--json]",
         "list the key hits found in a recording (onset in samples at 48 kHz and seconds, peak, energy, "
         "release and big-key flags) and the slicer's report, to tune a recipe's options; --json for scripts",
         runSlice},
};

void printUsage(std::FILE* stream) {
    std::fprintf(stream, "Usage: tobrin-pack VERB [ARGUMENTS]\n\nVerbs:\n");
    for (const Verb& verb : verbs) {
        std::fprintf(stream, "  %.*s %.*s\n      %.*s\n", int(verb.name.size()), verb.name.data(),
                     int(verb.arguments.size()), verb.arguments.data(), int(verb.summary.size()), verb.summary.data());
    }
    std::fprintf(stream, "\n  --help, -h\n      show this text\n");
}

} // namespace

void printError(std::string_view message) {
    const std::string shown = printable(message, maximumMessageLength);
    std::fprintf(stderr, "tobrin-pack: %s\n", shown.c_str());
}

int main(int argc, char** argv) {
    // The verbs catch what they expect; this is the last line for the rest
    // (running out of memory, say), so the tool never ends in an abort.
    try {
        const std::vector<std::string_view> arguments(argv + 1, argv + argc);
        if (arguments.empty()) {
            printUsage(stderr);
            return exitUsage;
        }
        if (arguments[0] == "--help" || arguments[0] == "-h") {
            printUsage(stdout);
            return exitSuccess;
        }
        for (const Verb& verb : verbs) {
            if (verb.name == arguments[0]) return verb.run(std::span(arguments).subspan(1));
        }
        printError("unknown verb " + std::string(arguments[0]) + " (see tobrin-pack --help)");
        return exitUsage;
    } catch (const std::bad_alloc&) {
        printError("out of memory");
    } catch (const std::exception& error) {
        printError(error.what());
    } catch (...) {
        printError("unexpected failure");
    }
    return exitFailure;
}

} // namespace tobrin::pack

int main(int argc, char** argv) { return tobrin::pack::main(argc, argv); }
