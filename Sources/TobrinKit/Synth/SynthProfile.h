#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tobrin {

// The fixed recipe of one synthesized switch: everything KeySynth needs to
// render every take of a pack, and the identity texts of that pack. The five
// built-in profiles are program constants, built on first use and immutable.
struct SynthProfile {
    // A decaying sinusoid. decay is the time constant of the exponential, in seconds.
    struct Mode {
        double frequency = 0;
        double decay = 0;
        double amplitude = 0;
        bool operator==(const Mode&) const = default;
    };

    // White noise shaped by a band-pass at center (Hz) with quality q.
    struct Burst {
        double center = 0;
        double q = 0;
        double decay = 0;
        double amplitude = 0;
        bool operator==(const Burst&) const = default;
    };

    // A short sound ahead of the main strike (a click leaf, a typebar's swing).
    struct Early {
        double leadMilliseconds = 0;
        Burst burst;
        std::optional<Mode> tone;
        // Level of its repeat on the key's release, 0...1; 0 means none.
        double onRelease = 0;
        bool operator==(const Early&) const = default;
    };

    std::string id;
    std::string name;
    std::string kind;
    std::string summary;
    std::vector<Mode> modes; // lowest first
    Burst impact;
    Mode thump;
    std::optional<Early> early;
    std::optional<Mode> ping;
    double brightness = 0;   // Hz, low-pass corner of the strike
    double room = 0;         // amount of early reflections (stereo spread)
    double releasePitch = 1; // release pitch relative to the press
    double releaseLevel = 1; // release level relative to the press
    bool bellOnEnter = false;

    bool operator==(const SynthProfile&) const = default;

    static const SynthProfile& cream();
    static const SynthProfile& click();
    static const SynthProfile& panda();
    static const SynthProfile& dome();
    static const SynthProfile& typewriter();

    // The five above, in the order they are generated and listed.
    static const std::vector<SynthProfile>& starterPacks();
};

} // namespace tobrin
