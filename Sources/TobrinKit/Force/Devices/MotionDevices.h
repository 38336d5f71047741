#pragma once

// Finding the machine's motion sensor: a hidraw device whose report
// descriptor declares the accelerometer's usage (page 0xFF00, usage 3), else
// an IIO accelerometer with a buffer. Both walk a root folder ("/" on a real
// machine) so tests can point them at a tree they wrote. add() registers the
// two with the force layer, ahead of the recorded stream; the programs call
// it once at start-up.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TobrinKit/Force/MotionSource.h"

namespace tobrin::MotionDevices {

// The first hidraw node (in number order) declaring the accelerometer.
std::optional<std::filesystem::path> findHidraw(const std::filesystem::path& root = "/");
// The first IIO accelerometer folder (in number order) with buffered x, y, z.
std::optional<std::filesystem::path> findIio(const std::filesystem::path& root = "/");
// Devices passed over because their descriptions were malformed, one line
// each, from the last find (for diagnostics).
std::vector<std::string> lastProblems();

// A source for the first device found: hidraw, then IIO.
std::unique_ptr<MotionSource> find(const std::filesystem::path& root = "/");

// Registers find(root) with MotionSources.
void add(const std::filesystem::path& root = "/");

} // namespace tobrin::MotionDevices
