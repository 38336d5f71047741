#pragma once

// The program's command-line face: diagnostics that exercise the real parts
// (motion sensor, key capture, audio engine, microphone watch) and report in
// words on standard output. run() gets the arguments after the program name
// and returns the exit status of a diagnostic, or nothing when the tray
// application should start (no arguments, or a first argument it does not
// know).

#include <optional>
#include <string>
#include <vector>

namespace tobrin::app::CLI {

std::optional<int> run(const std::vector<std::string>& arguments);

// The usage text, without a final newline.
extern const char* const usage;

// Each diagnostic: 0 when it worked, 1 when it could not (with the reason
// printed).
int probe(double seconds);
int selfTest();
int micWatch(double seconds);

// A seconds argument: a decimal number, else `fallback`.
double parseSeconds(const std::vector<std::string>& arguments, double fallback);

// The element at min(max(trunc(p × (count − 1)), 0), count − 1) of the
// ascending list (which must not be empty).
double percentile(std::vector<double> values, double p);

} // namespace tobrin::app::CLI
