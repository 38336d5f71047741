// The five built-in switch profiles.
#include "TobrinKit/Synth/SynthProfile.h"

namespace tobrin {

const SynthProfile& SynthProfile::cream() {
    static const SynthProfile profile{
        .id = "cream",
        .name = "Cream",
        .kind = "Linear",
        .summary = "Smooth linear with a deep, creamy thock.",
        .modes = {{196, 0.03, 1.0},
                  {355, 0.02, 0.55},
                  {610, 0.013, 0.42},
                  {980, 0.009, 0.3},
                  {1650, 0.006, 0.22},
                  {2900, 0.004, 0.12}},
        .impact = {1500, 0.7, 0.0018, 0.55},
        .thump = {105, 0.018, 0.35},
        .early = std::nullopt,
        .ping = std::nullopt,
        .brightness = 6500,
        .room = 0.8,
        .releasePitch = 1.22,
        .releaseLevel = 0.32,
        .bellOnEnter = false,
    };
    return profile;
}

const SynthProfile& SynthProfile::click() {
    static const SynthProfile profile{
        .id = "blue-click",
        .name = "Blue Click",
        .kind = "Clicky",
        .summary = "Crisp clicky switch with a bright snap on the way down and up.",
        .modes = {{390, 0.016, 0.7}, {820, 0.011, 0.55}, {1580, 0.008, 0.45}, {3100, 0.005, 0.32}},
        .impact = {2800, 0.9, 0.0012, 0.6},
        .thump = {130, 0.012, 0.22},
        .early = Early{.leadMilliseconds = 7.5,
                       .burst = {4200, 1.4, 0.0007, 0.9},
                       .tone = Mode{5200, 0.0035, 0.35},
                       .onRelease = 0.55},
        .ping = Mode{6300, 0.045, 0.05},
        .brightness = 11000,
        .room = 0.7,
        .releasePitch = 1.3,
        .releaseLevel = 0.4,
        .bellOnEnter = false,
    };
    return profile;
}

const SynthProfile& SynthProfile::panda() {
    static const SynthProfile profile{
        .id = "panda",
        .name = "Panda",
        .kind = "Tactile",
        .summary = "Punchy tactile bump with a poppy, clacky finish.",
        .modes = {{300, 0.021, 0.85}, {560, 0.015, 0.62}, {990, 0.01, 0.5}, {2250, 0.006, 0.34}, {3800, 0.003, 0.15}},
        .impact = {2300, 0.8, 0.0013, 0.62},
        .thump = {118, 0.014, 0.3},
        .early =
            Early{.leadMilliseconds = 4.0, .burst = {1800, 0.8, 0.0006, 0.18}, .tone = std::nullopt, .onRelease = 0},
        .ping = Mode{5600, 0.03, 0.02},
        .brightness = 9000,
        .room = 0.75,
        .releasePitch = 1.25,
        .releaseLevel = 0.36,
        .bellOnEnter = false,
    };
    return profile;
}

const SynthProfile& SynthProfile::dome() {
    static const SynthProfile profile{
        .id = "dome",
        .name = "Dome",
        .kind = "Silent tactile",
        .summary = "Muted, rounded thock with a soft rubber-dome feel.",
        .modes = {{165, 0.034, 1.0}, {285, 0.024, 0.5}, {470, 0.016, 0.32}, {790, 0.01, 0.18}},
        .impact = {900, 0.6, 0.0022, 0.4},
        .thump = {95, 0.022, 0.4},
        .early = std::nullopt,
        .ping = std::nullopt,
        .brightness = 4200,
        .room = 0.9,
        .releasePitch = 1.15,
        .releaseLevel = 0.45,
        .bellOnEnter = false,
    };
    return profile;
}

const SynthProfile& SynthProfile::typewriter() {
    // The upper three modes ring longer than the lower ones: a typebar and
    // platen, unlike a switch whose decays fall steadily with frequency.
    static const SynthProfile profile{
        .id = "typewriter",
        .name = "Typewriter",
        .kind = "Novelty",
        .summary = "Vintage typebars striking the platen, with a bell on Return.",
        .modes = {{620, 0.02, 0.8}, {1250, 0.016, 0.6}, {2450, 0.035, 0.28}, {3700, 0.05, 0.18}, {5200, 0.03, 0.08}},
        .impact = {3200, 0.7, 0.0016, 0.75},
        .thump = {140, 0.02, 0.35},
        .early =
            Early{.leadMilliseconds = 18.0, .burst = {900, 0.7, 0.0015, 0.3}, .tone = std::nullopt, .onRelease = 0},
        .ping = std::nullopt,
        .brightness = 12000,
        .room = 1.2,
        .releasePitch = 1.1,
        .releaseLevel = 0.25,
        .bellOnEnter = true,
    };
    return profile;
}

const std::vector<SynthProfile>& SynthProfile::starterPacks() {
    static const std::vector<SynthProfile> profiles = {cream(), click(), panda(), dome(), typewriter()};
    return profiles;
}

} // namespace tobrin
