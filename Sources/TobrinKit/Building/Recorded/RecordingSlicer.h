#pragma once

#include "TobrinKit/Engine/Core/KeyGroup.h"
#include "TobrinKit/Engine/Core/Tier.h"

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tobrin {

// Cuts a long recording of someone typing into key sounds ("takes"), sorts
// them into key groups and force tiers and levels them, for a pack built from
// recordings. Offline, on whole float buffers; stateless (static functions),
// safe from any thread.
//
// The groups it fills: ordinary presses go to `alpha`, presses of big keys
// (space bar, Enter, Backspace: darker, see RecordingSlicer.cpp) to
// `space`; the builder decides which pack groups share those lists.
class RecordingSlicer {
public:
    RecordingSlicer() = delete;

    // Recipes set these under "options" (PackRecipe decodes and encodes them).
    struct Options {
        double preRollMs = 1.5;     // kept before a take's onset
        double maxPressMs = 230;    // longest press take, ordinary keys
        double maxBigPressMs = 380; // longest press take, big keys
        double maxReleaseMs = 120;  // longest release take
        double minPressMs = 45;     // a press with less room before the next hit is not cut
        double mergeWithinMs = 25;  // onsets closer than this are one hit
        int alphaVariants = 6;      // takes per tier, ordinary keys
        int bigVariants = 4;        // takes per tier, big keys
        int releaseVariants = 6;    // release takes
        double bigKeyShare = 0.14;  // share of presses expected from big keys
        double highPassHz = 45;     // takes are high-passed here (rumble, handling noise)
        double gainDb = 0;          // gain applied to every take
        bool noReleases = false;    // no release pass: every hit counts as a press

        friend bool operator==(const Options&, const Options&) = default;
    };

    struct Hit {
        std::size_t onset = 0; // sample index where the hit starts
        float peak = 0;        // largest |mono mix| in the 15 ms after the onset
        float energy = 0;      // sum of squares of the mono mix over the hit's first 20 ms
        float brightness = 0;  // share of that energy above 2 kHz (over 12 ms), 0 ... 1
        double decayMs = 0;    // until the 700 Hz-high-passed mix stays 30 dB down (≤ 400 ms, not past the next hit)
        float preActivity = 0; // largest |mono mix| in the 5 ms before the onset, relative to peak
        bool clipped = false;  // either channel reaches ±0.995 within 30 ms
        std::size_t gapAfter = 0; // samples to the next onset (or the end)
        bool isRelease = false;
        bool isBig = false; // a press of a big key (dark: little of it above 300 Hz)

        friend bool operator==(const Hit&, const Hit&) = default;
    };

    struct Take {
        std::vector<float> left;
        std::vector<float> right;
        float level = 0;       // RMS of the take's first 20 ms (both channels)
        std::size_t onset = 0; // the hit it was cut from, in the recording

        friend bool operator==(const Take&, const Take&) = default;
    };

    struct Result {
        std::vector<Hit> hits; // every detected hit, in time order
        std::map<KeyGroup, std::map<Tier, std::vector<Take>>> down;
        std::vector<Take> up;
        float noiseFloor = 0; // amplitude of the detection signal's 20th-percentile frame
        std::string report;   // one line: what was found
    };

    struct Detection {
        std::vector<Hit> hits;
        float floor = 0;
    };

    // `right` must be at least as long as `left`; a mono recording passes
    // the same samples twice.
    static Result slice(std::span<const float> left, std::span<const float> right, double rate, const Options& options);
    static Detection detect(std::span<const float> left, std::span<const float> right, double rate,
                            const Options& options);

    // The entry at index p × (count − 1), fraction dropped, of the values
    // sorted ascending (clamped to the list); 0 for an empty list.
    static float percentile(std::vector<float> values, double p);
};

} // namespace tobrin
