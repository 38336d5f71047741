// The key synthesizer. Every value is computed in double precision in the
// order written here; the build disables multiply-add contraction, so the
// samples do not depend on the machine's instruction set. Reordering any
// draw or any arithmetic changes the built-in packs (their recorded digests
// in the tests show it).
#include "TobrinKit/Synth/KeySynth.h"

#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Synth/Biquad.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <string>

namespace tobrin {

namespace {

constexpr double rate = KeySynth::sampleRate;
constexpr double pi = std::numbers::pi;
// Components at or above this are never rendered (0.45 × rate, the filters' clamp too).
constexpr double highestFrequency = 21600;

// Seconds to a sample count, fraction dropped.
std::ptrdiff_t frames(double seconds) { return static_cast<std::ptrdiff_t>(seconds * rate); }

// The mono strike being rendered and the two random streams feeding it.
class Strike {
public:
    Strike(std::ptrdiff_t length, std::uint64_t shapeSeed, std::uint64_t noiseSeed)
        : buffer(static_cast<std::size_t>(length), 0.0), shapeStream(shapeSeed), noiseStream(noiseSeed) {}

    std::vector<double> buffer;

    std::ptrdiff_t size() const { return static_cast<std::ptrdiff_t>(buffer.size()); }

    // 1 + j × a signed draw from the shape stream.
    double jitter(double j) { return 1.0 + j * shapeStream.signedUnit(); }
    double shapeUnit() { return shapeStream.unit(); }
    double noiseUnit() { return noiseStream.unit(); }

    // Band-passed white noise decaying with time constant `decay`.
    void noiseBurst(double center, double q, double decay, double amplitude, std::ptrdiff_t start,
                    std::ptrdiff_t length) {
        shapedNoise(Biquad::bandpass(center, q, rate), amplitude * 2.2, std::exp(-1.0 / (decay * rate)), start, length);
    }

    // Noise through `filter`, its gain multiplied by `factor` after every
    // sample and ramped in over the first 8 samples.
    void shapedNoise(Biquad filter, double gain, double factor, std::ptrdiff_t start, std::ptrdiff_t length) {
        const std::ptrdiff_t count = clipped(start, length);
        double* out = buffer.data() + start;
        for (std::ptrdiff_t n = 0; n < count; ++n) {
            const double ramp = n < 8 ? double(n) / 7.2 : 1.0;
            const double x = ramp * gain * noiseStream.signedUnit();
            out[n] += filter.process(x);
            gain *= factor;
        }
    }

    // A decaying sinusoid with a 0.3 ms raised-cosine fade-in.
    void ringingPartial(double frequency, double decay, double amplitude, double phase, std::ptrdiff_t start,
                        std::ptrdiff_t length) {
        const std::ptrdiff_t count = clipped(start, length);
        const double factor = std::exp(-1.0 / (decay * rate));
        double gain = amplitude;
        double* out = buffer.data() + start;
        for (std::ptrdiff_t n = 0; n < count; ++n) {
            const double fade = n < 15 ? 0.5 - 0.5 * std::cos(double(n) * pi / 14.4) : 1.0;
            out[n] += std::sin(phase + 2.0 * pi * frequency * double(n) / rate) * gain * fade;
            gain *= factor;
        }
    }

private:
    // A component's length cut at the end of the buffer (0 when it starts past it).
    std::ptrdiff_t clipped(std::ptrdiff_t start, std::ptrdiff_t length) const {
        if (start >= size()) return 0;
        return std::max<std::ptrdiff_t>(0, std::min(length, size() - start));
    }

    SplitMix64 shapeStream;
    SplitMix64 noiseStream;
};

struct Reflection {
    double delayMilliseconds;
    double gain;
    double left;
    double right;
};

constexpr std::array<Reflection, 6> reflections = {{
    {2.3, 0.22, 0.85, 0.4},
    {3.9, 0.18, 0.35, 0.85},
    {6.1, 0.12, 0.7, 0.5},
    {8.7, 0.09, 0.4, 0.75},
    {12.5, 0.06, 0.6, 0.6},
    {17.0, 0.04, 0.55, 0.45},
}};

struct RattleHit {
    double delay;
    double level;
};
constexpr std::array<RattleHit, 2> rattleHits = {{{0.0034, 0.55}, {0.0071, 0.3}}};

struct BellPartial {
    double ratio;
    double amplitude;
    double decay;
};
constexpr std::array<BellPartial, 3> bellPartials = {{{1.0, 0.22, 0.38}, {2.76, 0.09, 0.22}, {5.4, 0.05, 0.12}}};
constexpr double bellFrequency = 2093;

std::vector<float> toFloat(const std::vector<double>& samples) {
    std::vector<float> out(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) out[i] = static_cast<float>(samples[i]);
    return out;
}

// What every step of one take reads: the key's shape, how hard it was struck,
// and the strike's timing, pitch, decay and level once they are known.
struct Take {
    const SynthProfile& profile;
    const KeySynth::GroupShape& shape;
    double strength;
    bool release;
    bool slam;
    bool bell;
    double onsetSeconds = 0.0003; // where the strike starts
    std::ptrdiff_t onset = 0;     // the same in samples
    double pitch = 0;             // the group's frequency the modes are ratios of
    double decayScale = 0;
    double level = 0;
};

// The early sound (a leaf's scrape, a slider's tick); on a press it leads the
// strike, which then starts later.
void addEarlySound(Strike& strike, Take& take) {
    if (!take.profile.early) return;
    const auto& early = *take.profile.early;
    double earlyLevel = 1.0;
    if (take.release) {
        earlyLevel = early.onRelease;
    } else {
        take.onsetSeconds = early.leadMilliseconds / 1000.0 + 0.0003;
    }
    if (!(earlyLevel > 0)) return;
    const double pitchJitter = strike.jitter(0.03);
    const auto& burst = early.burst;
    strike.noiseBurst(pitchJitter * burst.center, burst.q, burst.decay,
                      burst.amplitude * (0.25 * take.strength + 0.75) * earlyLevel, 14,
                      std::min(frames(burst.decay * 10.0), strike.size() - 14));
    if (early.tone) {
        const auto& tone = *early.tone;
        const double frequency = pitchJitter * tone.frequency;
        if (frequency < highestFrequency)
            strike.ringingPartial(frequency, tone.decay, tone.amplitude * earlyLevel, 0.0, 14,
                                  frames(tone.decay * 9.0));
    }
}

void planStrike(Take& take) {
    if (take.release) {
        take.pitch = take.shape.frequency * take.profile.releasePitch;
        take.decayScale = 0.6;
        take.level = take.shape.level * take.profile.releaseLevel;
    } else {
        take.pitch = take.shape.frequency;
        if (take.slam) take.pitch *= 0.97; // a hard bottom-out sounds slightly lower
        take.decayScale = 0.85 + 0.2 * take.strength;
        take.level = take.shape.level * std::pow(take.strength, 1.25);
    }
    take.onset = frames(take.onsetSeconds);
}

void addImpact(Strike& strike, const Take& take) {
    const auto& impact = take.profile.impact;
    const double decay = (0.3 * take.strength + 0.8) * impact.decay;
    const double centerJitter = strike.jitter(0.05);
    strike.noiseBurst(take.pitch * impact.center * centerJitter, impact.q, decay, impact.amplitude * take.level,
                      take.onset, frames(decay * 10.0));
}

// Higher modes grow faster with force, so a harder strike is brighter.
void addBodyModes(Strike& strike, const Take& take) {
    const auto& modes = take.profile.modes;
    const double divisor = modes.size() >= 3 ? double(modes.size() - 1) : 1.0;
    for (std::size_t i = 0; i < modes.size(); ++i) {
        const auto& mode = modes[i];
        const double frequencyJitter = strike.jitter(0.045);
        const double amplitudeJitter = strike.jitter(0.18);
        const double decayJitter = strike.jitter(0.1);
        const double phase = 2.0 * pi * strike.noiseUnit();
        const double decay = take.decayScale * take.shape.decay * mode.decay * decayJitter;
        const double frequency = frequencyJitter * take.pitch * mode.frequency;
        if (!(frequency < highestFrequency)) continue;
        const double amplitude =
            amplitudeJitter * take.level * mode.amplitude * std::pow(take.strength, 0.9 * double(i) / divisor);
        strike.ringingPartial(frequency, decay, amplitude, phase, take.onset, frames(decay * 9.0));
    }
}

// Case and plate, press only; not pitched by the group.
void addThump(Strike& strike, const Take& take) {
    if (take.release) return;
    const auto& thump = take.profile.thump;
    const double frequency = strike.jitter(0.05) * thump.frequency;
    if (!(frequency < highestFrequency)) return;
    const double decay = take.shape.decay * thump.decay;
    const double amplitude = take.strength * take.strength * thump.amplitude * take.shape.level;
    strike.ringingPartial(frequency, decay, amplitude, 0.0, take.onset, frames(decay * 9.0));
}

void addBottomOut(Strike& strike, const Take& take) {
    if (!take.slam) return;
    const auto& impact = take.profile.impact;
    strike.noiseBurst(0.8 * impact.center, impact.q, impact.decay, 0.32 * take.level * impact.amplitude,
                      frames(take.onsetSeconds + 0.0022), frames(impact.decay * 10.0));
}

void addPing(Strike& strike, const Take& take) {
    if (take.release || !take.profile.ping) return;
    const auto& ping = *take.profile.ping;
    const double frequency = strike.jitter(0.02) * ping.frequency;
    if (!(frequency < highestFrequency)) return;
    const double phase = 2.0 * pi * strike.noiseUnit();
    strike.ringingPartial(frequency, ping.decay, ping.amplitude * take.strength, phase, take.onset,
                          frames(ping.decay * 9.0));
}

// Stabiliser rattle of the big keys, press and release.
void addRattle(Strike& strike, const Take& take) {
    if (!(take.shape.rattle > 0)) return;
    const auto& impact = take.profile.impact;
    for (const RattleHit& hit : rattleHits) {
        const double timing = strike.shapeUnit();
        const std::ptrdiff_t start = frames(take.onsetSeconds + hit.delay * (1.0 + 0.2 * (2.0 * timing - 1.0)));
        if (start >= strike.size()) continue;
        const double center = std::min(0.7 * impact.center * strike.jitter(0.1), highestFrequency);
        strike.shapedNoise(Biquad::bandpass(center, 1.1, rate),
                           impact.amplitude * take.level * take.shape.rattle * hit.level * 2.2,
                           0.9812388294607182, // 1.1 ms decay
                           start, 528);
    }
}

// Carriage ratchet and bell on the Return key's press; neither depends on force.
void addCarriageAndBell(Strike& strike, const Take& take) {
    if (!take.bell || take.release) return;
    for (int click = 0; click < 7; ++click) {
        const std::ptrdiff_t start = frames(take.onsetSeconds + 0.012 + double(click) * 0.011);
        if (start >= strike.size()) continue;
        const double center = std::min(3800.0 * strike.jitter(0.05), highestFrequency);
        strike.shapedNoise(Biquad::bandpass(center, 2.0, rate), 0.33,
                           0.9658736772410497, // 0.6 ms decay
                           start, 288);
    }
    const std::ptrdiff_t start = frames(take.onsetSeconds + 0.095);
    for (const BellPartial& partial : bellPartials) {
        const double frequency = partial.ratio * bellFrequency;
        if (!(frequency < highestFrequency)) continue;
        strike.ringingPartial(frequency, partial.decay, partial.amplitude, 0.0, start, frames(partial.decay * 9.0));
    }
}

void shapeTone(std::vector<double>& mono, const Take& take) {
    const double cutoff =
        take.release ? take.profile.brightness * 1.1 : take.profile.brightness * (0.5 + 0.5 * take.strength);
    Biquad::lowpass(cutoff, 0.7071, rate).process(mono);
    Biquad::highpass(55.0, 0.7071, rate).process(mono);
}

// Darker early reflections, weighted unequally to the two sides.
KeySynth::Sound addRoom(std::vector<double> mono, double roomLevel) {
    const std::ptrdiff_t length = std::ptrdiff_t(mono.size());
    std::vector<double> room = mono;
    Biquad::lowpass(5000.0, 0.7071, rate).process(room);
    std::vector<double> left = mono;
    std::vector<double> right = std::move(mono);
    for (const Reflection& reflection : reflections) {
        const std::ptrdiff_t delay = frames(reflection.delayMilliseconds / 1000.0);
        const double gain = roomLevel * reflection.gain;
        for (std::ptrdiff_t n = 0; n < length - delay; ++n) {
            left[delay + n] += reflection.left * gain * room[n];
            right[delay + n] += reflection.right * gain * room[n];
        }
    }
    KeySynth::trim(left, right);
    return KeySynth::Sound{toFloat(left), toFloat(right)};
}

} // namespace

std::uint64_t KeySynth::seed(std::initializer_list<std::string_view> parts) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    const auto feed = [&hash](std::string_view text) {
        for (unsigned char byte : text) {
            hash ^= byte;
            hash *= 0x100000001b3ULL;
        }
    };
    bool first = true;
    for (std::string_view part : parts) {
        if (!first) feed("|");
        feed(part);
        first = false;
    }
    return hash;
}

void KeySynth::trim(std::vector<double>& left, std::vector<double>& right) {
    const std::size_t count = std::min(left.size(), right.size());
    double peak = 0;
    for (std::size_t i = 0; i < count; ++i) peak = std::max({peak, std::abs(left[i]), std::abs(right[i])});
    if (!(peak > 0)) return;

    const double threshold = peak * 0.00031622776601683794; // −70 dB
    std::ptrdiff_t last = -1;
    for (std::ptrdiff_t i = std::ptrdiff_t(count) - 1; i >= 0; --i) {
        if (std::abs(left[i]) >= threshold || std::abs(right[i]) >= threshold) {
            last = i;
            break;
        }
    }
    const std::size_t length = std::min(std::size_t(last + 1 + 192), count);
    left.resize(length);
    right.resize(length);

    const std::size_t fade = std::min<std::size_t>(length, 192);
    for (std::size_t i = 0; i < fade; ++i) {
        const double gain = 0.5 - 0.5 * std::cos(double(i) * pi / 192.0);
        left[length - 1 - i] *= gain;
        right[length - 1 - i] *= gain;
    }
}

KeySynth::Sound KeySynth::render(KeyGroup group, std::optional<Tier> tier, std::uint32_t variant,
                                 const SynthProfile& profile) {
    Take take{profile, KeySynth::shape(group), strength(tier),
              !tier,   tier == Tier::slam,     profile.bellOnEnter && group == KeyGroup::enter};

    // The buffer holds the longest decay.
    double longestDecay = 0.03;
    if (!profile.modes.empty()) {
        longestDecay = profile.modes.front().decay;
        for (const auto& mode : profile.modes) longestDecay = std::max(longestDecay, mode.decay);
    }
    double seconds = longestDecay * take.shape.decay * 9.0 + 0.05;
    if (take.bell) seconds += 0.9;
    seconds = std::min(seconds, 1.6);

    // The shape stream leaves out the tier, so every force of a key (and its
    // release) is the same instrument; the noise stream is the take's own.
    const std::string number = std::to_string(variant);
    const std::string_view groupName = rawValue(group);
    const std::string_view tierName = tier ? name(*tier) : std::string_view("up");
    Strike strike(frames(seconds), seed({profile.id, groupName, "key", number}),
                  seed({profile.id, groupName, tierName, number}));

    // Each step draws from the streams in turn: their order is part of the sound.
    addEarlySound(strike, take);
    planStrike(take);
    addImpact(strike, take);
    addBodyModes(strike, take);
    addThump(strike, take);
    addBottomOut(strike, take);
    addPing(strike, take);
    addRattle(strike, take);
    addCarriageAndBell(strike, take);
    shapeTone(strike.buffer, take);
    return addRoom(std::move(strike.buffer), profile.room);
}

} // namespace tobrin
