// The hit detector, the features of a hit, and how hits become takes.
#include "TobrinKit/Building/Recorded/RecordingSlicer.h"

#include "TobrinKit/Engine/Core/SplitMix64.h"
#include "TobrinKit/Synth/Biquad.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>

namespace tobrin {

namespace {

using Signal = std::vector<float>;

// Durations become samples by seconds × rate, fraction dropped.
std::size_t samples(double ms, double rate) {
    const double count = ms * rate / 1000.0;
    return count > 0 ? std::size_t(count) : 0;
}

// The input high-passed, as float. Reserved, not zero-filled: a minute of
// audio is 11 MB, and clearing it first costs as much as filtering it.
Signal highPassed(std::span<const float> input, double frequency, double rate) {
    Biquad filter = Biquad::highpass(frequency, std::numbers::sqrt2 / 2.0, rate);
    Signal output;
    output.reserve(input.size());
    for (const float sample : input) output.push_back(float(filter.process(double(sample))));
    return output;
}

// A filter run over a window of a long signal starts `settle` before the
// window, so its state has settled when the window begins (the corners used
// here, 45 Hz and up, settle to −80 dB within 50 ms) without filtering
// the whole recording.
constexpr double settleMs = 50;

Signal highPassedWindow(std::span<const float> input, std::size_t begin, std::size_t end, double frequency,
                        double rate) {
    const std::size_t settle = std::min(begin, std::size_t(settleMs * rate / 1000.0));
    end = std::min(end, input.size());
    Signal output = highPassed(input.subspan(begin - settle, end - (begin - settle)), frequency, rate);
    output.erase(output.begin(), output.begin() + std::ptrdiff_t(settle));
    return output;
}

float largest(const Signal& signal, std::size_t begin, std::size_t end) {
    float result = 0;
    for (std::size_t i = begin; i < std::min(end, signal.size()); ++i) result = std::max(result, std::abs(signal[i]));
    return result;
}

double squares(const Signal& signal, std::size_t begin, std::size_t end) {
    double sum = 0;
    for (std::size_t i = begin; i < std::min(end, signal.size()); ++i) sum += double(signal[i]) * double(signal[i]);
    return sum;
}

constexpr float tierFactor(Tier tier) {
    constexpr std::array<float, 4> factors{0.55f, 1.0f, 1.45f, 2.0f};
    return factors[std::size_t(rawValue(tier))];
}
// Big keys sound fuller than letters on every keyboard; a plain median level
// would make the space bar as loud as a letter.
constexpr float bigKeyFactor = 1.15f;
// Releases sit below the softest press, as they do on a real keyboard.
constexpr float releaseFactor = 0.5f;

// The release pass. Typing is press, release, press, ...: a key goes up 30 to
// 300 ms after it went down, and the release is the quieter sound. So, in
// time order, a hit is a release when the hit just before it is a press
// struck 30 to 300 ms earlier and this one's peak is at most 0.7 times that
// press's (3 dB weaker). Only the hit just before counts: a release heard
// after another key went down belongs to rollover typing, where telling it
// from a soft press is guesswork, and a missed release must not make the
// next firm press look like one. Tried on renders of the five built-in packs
// with several thresholds and pairing rules, this one misjudged the fewest.
void markReleases(std::vector<RecordingSlicer::Hit>& hits, double rate) {
    const std::size_t shortest = samples(30, rate);
    const std::size_t longest = samples(300, rate);
    for (std::size_t i = 1; i < hits.size(); ++i) {
        const auto& press = hits[i - 1];
        const std::size_t gap = hits[i].onset - press.onset;
        hits[i].isRelease = !press.isRelease && gap >= shortest && gap <= longest && hits[i].peak <= 0.7f * press.peak;
    }
}

// Big keys (space bar, Enter, Backspace) are the dark ones: a long key with
// a stabiliser wire moves more air and rings lower. The measure is the share
// of a press's first 60 ms above 300 Hz (`body`, hum filtered out first); the
// presses whose share is within the lowest bigKeyShare × 1.6 are big. The
// margin over the expected share catches nearly every space bar in renders
// of the built-in packs, at the price of about one letter in eight (soft,
// dark strokes), which then plays as a wide key: the lesser harm.
void markBigKeys(std::vector<RecordingSlicer::Hit>& hits, const std::vector<float>& body, double bigKeyShare) {
    std::vector<float> presses;
    for (std::size_t i = 0; i < hits.size(); ++i) {
        if (!hits[i].isRelease) presses.push_back(body[i]);
    }
    if (presses.size() < 2 || !(bigKeyShare > 0)) return;
    const float darkest = RecordingSlicer::percentile(presses, bigKeyShare * 1.6);
    for (std::size_t i = 0; i < hits.size(); ++i) hits[i].isBig = !hits[i].isRelease && body[i] <= darkest;
}

// The recording takes are cut from; each take is high-passed (rumble, desk
// thumps) and given the recipe's gain as it is cut.
struct Source {
    std::span<const float> left, right;
    std::size_t preRoll = 0;
    double rate = 0;
    double highPassHz = 0;
    float gain = 1;
};

// Cuts one take: from preRoll before the onset to at most maxMs after it,
// and never into the next hit (it ends preRoll before the next onset). Less
// than minMs of room gives nothing: such a take would be the head of a
// sound with its body cut off. The pre-roll fades in and the last 20 ms
// (a quarter of a short take) fade out along a raised cosine, so neither
// cut clicks.
std::optional<RecordingSlicer::Take> cut(const Source& source, const RecordingSlicer::Hit& hit, double maxMs,
                                         double minMs) {
    const std::size_t length = source.left.size();
    const std::size_t begin = hit.onset - std::min(hit.onset, source.preRoll);
    std::size_t end = std::min({hit.onset + samples(maxMs, source.rate), length, hit.onset + hit.gapAfter});
    if (hit.onset + hit.gapAfter < length)
        end = std::min(end, hit.onset + hit.gapAfter - std::min(hit.gapAfter, source.preRoll));
    if (end <= hit.onset || end - hit.onset < samples(minMs, source.rate) || end <= begin) return std::nullopt;

    RecordingSlicer::Take take;
    take.onset = hit.onset;
    for (auto [channel, into] : {std::pair{source.left, &take.left}, std::pair{source.right, &take.right}}) {
        *into = source.highPassHz > 0
                    ? highPassedWindow(channel, begin, end, source.highPassHz, source.rate)
                    : Signal(channel.begin() + std::ptrdiff_t(begin), channel.begin() + std::ptrdiff_t(end));
        for (float& sample : *into) sample *= source.gain;
    }
    const std::size_t frames = take.left.size();
    const std::size_t fadeIn = hit.onset - begin;
    for (std::size_t i = 0; i < fadeIn; ++i) {
        const float gain = float(0.5 - 0.5 * std::cos(std::numbers::pi * double(i) / double(fadeIn)));
        take.left[i] *= gain;
        take.right[i] *= gain;
    }
    const std::size_t fadeOut = std::min(samples(20, source.rate), frames / 4);
    for (std::size_t i = 0; i < fadeOut; ++i) {
        const float gain = float(0.5 - 0.5 * std::cos(std::numbers::pi * double(i + 1) / double(fadeOut + 1)));
        take.left[frames - 1 - i] *= gain;
        take.right[frames - 1 - i] *= gain;
    }
    // The level: RMS of the first 20 ms after the onset, both channels.
    const std::size_t from = fadeIn;
    const std::size_t to = std::min(frames, from + samples(20, source.rate));
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) {
        sum += double(take.left[i]) * take.left[i] + double(take.right[i]) * take.right[i];
    }
    take.level = to > from ? float(std::sqrt(sum / double(2 * (to - from)))) : 0.0f;
    return take;
}

// The private tier assignment: energy bands, then evenly spaced picks.
// A hit is never taken twice: once a band's evenly spaced picks are used,
// the rest of the band is walked from its start for hits not taken yet.
std::map<Tier, std::vector<RecordingSlicer::Take>> tiers(const Source& source, std::vector<RecordingSlicer::Hit> hits,
                                                         int variants, double maxMs, double minMs) {
    std::stable_sort(hits.begin(), hits.end(), [](const auto& a, const auto& b) { return a.energy < b.energy; });
    struct Band {
        Tier tier;
        double lo, hi;
    };
    const std::size_t n = hits.size();
    const auto wanted = std::size_t(std::max(variants, 0));
    std::vector<Band> bands{
        {Tier::soft, 0.08, 0.30}, {Tier::medium, 0.38, 0.62}, {Tier::hard, 0.70, 0.88}, {Tier::slam, 0.92, 1.0}};
    if (n < wanted * 4) bands = {{Tier::medium, 0.0, 1.0}};

    std::map<Tier, std::vector<RecordingSlicer::Take>> result;
    if (n == 0 || wanted == 0) return result;
    for (const Band& band : bands) {
        const auto a = std::size_t(band.lo * double(n));
        const std::size_t b = std::max(std::min(std::size_t(band.hi * double(n)), n), a + 1);
        const std::size_t count = std::min(b, n) - std::min(a, n);
        if (count == 0) continue;
        std::size_t stride = count < wanted ? 1 : count / wanted;
        if (wanted < 2) stride = std::max<std::size_t>(count, 1);
        std::vector<bool> used(count, false);
        std::vector<RecordingSlicer::Take> takes;
        const auto tryTake = [&](std::size_t position) {
            used[position] = true;
            if (auto take = cut(source, hits[a + position], maxMs, minMs)) takes.push_back(std::move(*take));
        };
        for (std::size_t position = stride / 2; position < count && takes.size() < wanted; position += stride) {
            tryTake(position);
        }
        for (std::size_t position = 0; position < count && takes.size() < wanted; ++position) {
            if (!used[position]) tryTake(position);
        }
        if (!takes.empty()) result[band.tier] = std::move(takes);
    }
    return result;
}

void level(std::vector<RecordingSlicer::Take>& takes, float target, float factor) {
    for (auto& take : takes) {
        const float gain = std::pow(target * factor / std::max(take.level, 1e-9f), 0.7f);
        for (float& sample : take.left) sample *= gain;
        for (float& sample : take.right) sample *= gain;
        take.level *= gain;
    }
}

} // namespace

float RecordingSlicer::percentile(std::vector<float> values, double p) {
    if (values.empty()) return 0;
    const double position = std::clamp(p * double(values.size() - 1), 0.0, double(values.size() - 1));
    const auto index = std::size_t(position);
    // Only the entry at the index is needed: a partial sort gives the same.
    std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(index), values.end());
    return values[index];
}

RecordingSlicer::Detection RecordingSlicer::detect(std::span<const float> left, std::span<const float> right,
                                                   double rate, const Options& options) {
    const std::size_t length = left.size();
    Signal mono;
    mono.reserve(length);
    for (std::size_t i = 0; i < length; ++i) mono.push_back((left[i] + right[i]) * 0.5f);
    const Signal detection = highPassed(mono, 700, rate);

    // The envelope: 1 ms frames every 0.5 ms, in dB.
    const std::size_t width = samples(1, rate);
    const std::size_t hop = samples(0.5, rate);
    const std::size_t frames = (hop > 0 && width > 0 && length >= width) ? (length - width) / hop : 0;
    Detection result;
    if (frames == 0) return result;
    std::vector<float> envelope(frames, -120.0f);
    for (std::size_t k = 0; k < frames; ++k) {
        const double mean = squares(detection, k * hop, k * hop + width) / double(width);
        envelope[k] = float(10.0 * std::log10(mean + 1e-12));
    }
    const float floorDb = percentile(envelope, 0.2);
    result.floor = float(std::pow(10.0, double(floorDb) / 20.0));

    // The onset scan.
    const std::size_t merge = samples(options.mergeWithinMs, rate);
    const std::size_t before = samples(3, rate);
    const std::size_t after = samples(4, rate);
    const std::size_t skip = std::max<std::size_t>(samples(8, rate) / hop, 1);
    std::vector<std::size_t> onsets;
    for (std::size_t k = 6; k < frames;) {
        const float base =
            *std::min_element(envelope.begin() + std::ptrdiff_t(k - 6), envelope.begin() + std::ptrdiff_t(k));
        const std::size_t recentBegin = k >= 60 ? k - 60 : 0;
        const std::size_t recentEnd = k >= 4 ? k - 4 : 0;
        const float recent = recentBegin < recentEnd ? *std::max_element(envelope.begin() + std::ptrdiff_t(recentBegin),
                                                                         envelope.begin() + std::ptrdiff_t(recentEnd)) +
                                                           3.0f
                                                     : -std::numeric_limits<float>::infinity();
        const float level = envelope[k];
        if (!(level - base > 12.0f && level > floorDb + 18.0f && level > recent)) {
            ++k;
            continue;
        }
        const std::size_t s = k * hop;
        const std::size_t from = s >= before ? s - before : 0;
        const std::size_t to = std::min(s + after, length);
        std::size_t onset = s;
        if (from < to) {
            const float threshold = 0.25f * largest(detection, from, to);
            onset = from;
            while (onset < to && std::abs(detection[onset]) < threshold) ++onset;
        }
        if (onsets.empty() || onset >= onsets.back() + merge) onsets.push_back(onset);
        k += skip;
    }

    // Refinement: a hit whose strongest part comes late after a quiet start
    // (a soft touch before the bottom-out) starts where the strong part does.
    const std::size_t window = samples(90, rate);
    const std::size_t late = samples(12, rate);
    const std::size_t lead = samples(4, rate);
    std::vector<std::size_t> refined = onsets;
    for (std::size_t i = 0; i < onsets.size(); ++i) {
        const std::size_t o = onsets[i];
        const std::size_t e = std::min({o + window, i + 1 < onsets.size() ? onsets[i + 1] : length, length});
        std::size_t peakAt = o;
        float peak = -1;
        for (std::size_t j = o; j < e; ++j) {
            if (std::abs(detection[j]) > peak) peak = std::abs(detection[j]), peakAt = j;
        }
        if (peak <= 0 || peakAt - o <= late) continue;
        const std::size_t from = peakAt >= lead ? peakAt - lead : 0;
        if (largest(detection, from, peakAt) >= 0.35f * peak) continue;
        std::size_t moved = from;
        while (moved < peakAt && std::abs(detection[moved]) < 0.2f * peak) ++moved;
        refined[i] = moved;
    }

    // Features.
    std::vector<float> body;
    const std::size_t span5 = samples(5, rate), span12 = samples(12, rate), span15 = samples(15, rate),
                      span20 = samples(20, rate), span30 = samples(30, rate), span60 = samples(60, rate),
                      decayLimit = samples(400, rate), oneMs = samples(1, rate);
    result.hits.reserve(refined.size());
    for (std::size_t i = 0; i < refined.size(); ++i) {
        Hit hit;
        const std::size_t o = refined[i];
        hit.onset = o;
        hit.gapAfter = (i + 1 < refined.size() ? std::max(refined[i + 1], o) : length) - o;
        hit.peak = largest(mono, o, o + span15);
        hit.energy = float(squares(mono, o, o + span20));
        const double all = squares(mono, o, o + span12);
        const Signal bright = highPassedWindow(mono, o, o + span12, 2000, rate);
        hit.brightness = all > 1e-20 ? float(std::min(1.0, squares(bright, 0, span12) / all)) : 0.0f;
        for (std::size_t j = o; j < std::min(o + span30, length) && !hit.clipped; ++j) {
            hit.clipped = std::abs(left[j]) >= 0.995f || std::abs(right[j]) >= 0.995f;
        }
        // On the detection signal, which hum and rumble do not reach.
        const float head = largest(detection, o, o + span15);
        // The millisecond before the onset holds the attack's own foot.
        const std::size_t quietEnd = o >= oneMs ? o - oneMs : 0;
        const std::size_t quietBegin = quietEnd >= span5 ? quietEnd - span5 : 0;
        hit.preActivity = head > 0 ? largest(detection, quietBegin, quietEnd) / head : 0.0f;
        // Decay: 1 ms steps until one stays 30 dB under the head (or within
        // 6 dB of the noise floor), at most 400 ms and never past the next hit.
        const float quiet = std::max(head * 0.0316f, result.floor * 2.0f);
        const std::size_t stop = std::min({o + decayLimit, o + hit.gapAfter, length});
        std::size_t j = o + span5;
        while (j < stop && largest(detection, j, std::min(j + width, stop)) >= quiet) j += width;
        hit.decayMs = double(std::min(j, stop) - o) * 1000.0 / rate;
        const Signal humless = highPassedWindow(mono, o, o + span60, 80, rate);
        const Signal upper = highPassed(humless, 300, rate);
        const double whole = squares(humless, 0, span60);
        body.push_back(whole > 1e-20 ? float(squares(upper, 0, span60) / whole) : 1.0f);
        result.hits.push_back(hit);
    }
    if (!options.noReleases && result.hits.size() >= 2) markReleases(result.hits, rate);
    markBigKeys(result.hits, body, options.bigKeyShare);
    return result;
}

RecordingSlicer::Result RecordingSlicer::slice(std::span<const float> left, std::span<const float> right, double rate,
                                               const Options& options) {
    Detection detection = detect(left, right, rate, options);
    Result result;
    result.noiseFloor = detection.floor;

    std::vector<Hit> presses, bigPresses, releases;
    std::size_t clipped = 0, overlapping = 0;
    for (const Hit& hit : detection.hits) {
        if (hit.clipped) {
            ++clipped;
        } else if (!hit.isRelease) {
            if (hit.preActivity >= 0.25f) {
                ++overlapping;
            } else {
                (hit.isBig ? bigPresses : presses).push_back(hit);
            }
        } else if (hit.preActivity < 0.7f) {
            releases.push_back(hit);
        } else {
            ++overlapping;
        }
    }

    if (!detection.hits.empty()) {
        Source source;
        source.left = left;
        source.right = right.first(left.size());
        source.rate = rate;
        source.preRoll = samples(options.preRollMs, rate);
        source.highPassHz = options.highPassHz;
        source.gain = float(std::pow(10.0, options.gainDb / 20.0));

        auto ordinary = tiers(source, presses, options.alphaVariants, options.maxPressMs, options.minPressMs);
        auto big = tiers(source, bigPresses, options.bigVariants, options.maxBigPressMs, options.minPressMs);
        // Releases are short; they need a third of a press's minimum room.
        const double minReleaseMs = options.minPressMs / 3.0;
        for (const Hit& hit : shuffledDeterministically(releases)) {
            if (result.up.size() >= std::size_t(std::max(options.releaseVariants, 0))) break;
            if (auto take = cut(source, hit, options.maxReleaseMs, minReleaseMs)) result.up.push_back(std::move(*take));
        }

        std::vector<float> levels;
        for (const auto* lists : {&ordinary, &big}) {
            for (const auto& [tier, takes] : *lists) {
                for (const Take& take : takes) levels.push_back(take.level);
            }
        }
        if (levels.empty()) {
            for (const Take& take : result.up) levels.push_back(take.level);
        }
        const float target = percentile(levels, 0.5);
        for (auto& [tier, takes] : ordinary) level(takes, target, tierFactor(tier));
        for (auto& [tier, takes] : big) level(takes, target, tierFactor(tier) * bigKeyFactor);
        level(result.up, target, releaseFactor);
        if (!ordinary.empty()) result.down[KeyGroup::alpha] = std::move(ordinary);
        if (!big.empty()) result.down[KeyGroup::space] = std::move(big);
    }

    char line[256];
    const double floorDb = detection.floor > 0 ? 20.0 * std::log10(double(detection.floor)) : -120.0;
    std::snprintf(line, sizeof line,
                  "%zu hits: %zu presses (%zu big), %zu releases, %zu clipped, %zu overlapping; noise floor %.1f dB",
                  detection.hits.size(), presses.size() + bigPresses.size(), bigPresses.size(), releases.size(),
                  clipped, overlapping, floorDb);
    result.report = line;
    result.hits = std::move(detection.hits);
    return result;
}

} // namespace tobrin
