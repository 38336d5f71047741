#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace tobrin::pack {

// One verb of tobrin-pack: its name, the synopsis of its arguments, a
// one-line summary for --help, and the function that runs it with the
// arguments after the verb. It returns the process exit status.
struct Verb {
    std::string_view name;
    std::string_view arguments;
    std::string_view summary;
    int (*run)(std::span<const std::string_view> arguments);
};

// Exit statuses shared by the verbs.
inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

// Messages are cut to this many bytes: a message may quote a file's content.
inline constexpr std::size_t maximumMessageLength = 4096;

// Prints "tobrin-pack: " and the message to standard error, with control
// characters escaped (printable()): messages carry names and text from packs
// and file names, which must never reach the terminal raw.
void printError(std::string_view message);

// The verbs, one source file each (GenerateVerb.cpp, ...). main.cpp lists them.
int runBuild(std::span<const std::string_view> arguments);
int runGenerate(std::span<const std::string_view> arguments);
int runImport(std::span<const std::string_view> arguments);
int runLoudness(std::span<const std::string_view> arguments);
int runPlay(std::span<const std::string_view> arguments);
int runRender(std::span<const std::string_view> arguments);
int runSlice(std::span<const std::string_view> arguments);

} // namespace tobrin::pack
