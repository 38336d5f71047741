#pragma once

// Plays a scripted sequence of key presses through a private voice mixer into
// memory, without an audio device: how packs are auditioned and measured off
// line, and how the engine is checked without sound hardware. Unlike the live
// Conductor, stroke strength comes from the script's tier positions (no
// sensor, no refinements) and all jitter from a generator seeded with 42, so
// a render is bit-identical run to run. Pure functions, callable from any
// thread.

#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Engine/Core/KeyEvent.h"

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace tobrin {

class LoadedPack;

struct ScriptedKey {
    double time = 0; // seconds from the start of the render
    std::uint16_t code = 0;
    KeyAction action = KeyAction::down;
    float position = 1; // tier position 0...3

    bool operator==(const ScriptedKey&) const = default;
};

namespace OfflineRenderer {

struct Channels {
    std::vector<float> left;
    std::vector<float> right;
};

// Renders the script (sorted by time, stably) plus `tail` seconds after its
// last key. Onsets are quantised to the 64-frame block that contains them.
Channels render(const LoadedPack& pack, std::vector<ScriptedKey> script, const EngineSettings& settings, double tail,
                double sampleRate);

// A typing performance of `text` at `wpm` words a minute (five characters to a
// word) with human-like timing drawn from SplitMix64(seed); strength(i, n)
// gives the tier position of the i-th of n typed characters. Characters
// without a key in the US layout table are skipped and take no time.
std::vector<ScriptedKey> typingScript(std::string_view text, double wpm, std::uint64_t seed,
                                      const std::function<float(int index, int count)>& strength);

// The strength a scripted position stands for: the relative strength at the
// centre of its nearest tier (halves round up).
float relativeStrength(float position);

// The key code of a (lower-case) character in the US layout, or -1.
int keyCode(char character);

} // namespace OfflineRenderer
} // namespace tobrin
