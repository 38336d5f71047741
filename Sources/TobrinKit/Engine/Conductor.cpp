#include "TobrinKit/Engine/Conductor.h"

#include "TobrinKit/Engine/Core/KeyCode.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <algorithm>
#include <cmath>

namespace tobrin {
namespace {

// The conductor's own jitter (fixed-tier spread, per-stroke variation,
// release gain) is seeded once, like every other random choice.
constexpr std::uint64_t jitterSeed = 0x70B21C0DULL;

// A replaced pack is dropped only after the mixer has rendered this many
// frames past its release-all command: the 6 ms fade plus more than two of the
// largest blocks a sound server asks for. At 48 kHz this is a third of a
// second, so it is always met by the two-second delay while sound runs; it
// matters when the output was paused before the fade could play.
constexpr std::uint64_t framesToFadeOut = 16384;

std::uint64_t ticksOf(std::chrono::nanoseconds duration) {
    return std::uint64_t(std::max<std::int64_t>(duration.count(), 0));
}

std::uint64_t ticksBefore(std::uint64_t time, double milliseconds) {
    const std::uint64_t span = MachTime::ticks(milliseconds);
    return time > span ? time - span : 0;
}

} // namespace

Conductor::Conductor(std::shared_ptr<AudioOutput> audio, std::shared_ptr<ForceSensor> sensor)
    : Conductor(std::move(audio), std::move(sensor), Timing()) {}

Conductor::Conductor(std::shared_ptr<AudioOutput> audio, std::shared_ptr<ForceSensor> sensor, Timing timing,
                     std::shared_ptr<HostClock> clock)
    : audio_(std::move(audio)), sensor_(std::move(sensor)), timing_(timing),
      classifier_(ForceClassifier::defaultReference), lastActivity_(clock->now()), rng_(jitterSeed),
      idleDeadline_(lastActivity_), queue_("app.tobrin.conductor", std::move(clock)) {
    queue_.sync([this] { armIdleTimer(); });
}

Conductor::~Conductor() {
    shutdown();
    queue_.stop();
}

// MARK: Public operations (any thread)

void Conductor::handle(const KeyEvent& event) {
    queue_.async([this, event] {
        if (event.action == KeyAction::down)
            keyDown(event);
        else
            keyUp(event);
    });
}

void Conductor::apply(const EngineSettings& settings, bool wakeNow) {
    queue_.async([this, settings, wakeNow] {
        const bool wasEnabled = settings_.enabled;
        const bool wasSensing = settings_.forceSensing;
        settings_ = settings;
        classifier_.setSensitivity(settings.sensitivity);
        audio_->setVolume(settings.volume);

        if (!settings.enabled) {
            suspend();
        } else if (wasEnabled && !suspended_) {
            if (settings.forceSensing != wasSensing && sensor_) {
                if (settings.forceSensing)
                    sensor_->start();
                else
                    sensor_->stop();
            }
            // A new conductor is neither suspended nor started: the first
            // apply that asks to wake is what starts it.
            if (wakeNow && !audio_->isRunning()) wake();
        } else if (wakeNow) {
            wake();
        }
    });
}

void Conductor::setPack(std::shared_ptr<const LoadedPack> pack) {
    queue_.async([this, pack = std::move(pack)]() mutable {
        const bool faded = releaseAll();
        const std::uint64_t frames = audio_->renderedFrames();
        auto old = std::exchange(pack_, std::move(pack));
        if (!old) return;
        // A refused release-all is not sent again later, when it would fade the
        // new pack's voices too: the old voices then play out to their end,
        // and the pack stays until the longest of them can have done so.
        // (The conductor's rates stay within 2 % of 1, so twice the longest
        // sound is more than any of its voices can last.)
        const std::uint64_t fade = faded ? framesToFadeOut : 2 * old->longestSoundFrames() + framesToFadeOut;
        queue_.asyncAfter(timing_.packDropDelay, [this, old, frames, fade] { dropWhenSilent(old, frames, fade); });
    });
}

void Conductor::audition() {
    queue_.async([this] {
        if (!settings_.enabled) return;
        wake();
        if (!pack_) return;
        double offset = 0;
        for (const std::uint16_t code : auditionPhrase()) {
            const float position = std::clamp(float(1.0 + 0.8 * rng_.signedUnit()), 0.0f, 3.0f);
            const auto at = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(offset));
            queue_.asyncAfter(at, [this, code, position] {
                if (!suspended_) start(code, position, 1.0f, Voicing::Variation{1.0f, 1.0f});
            });
            queue_.asyncAfter(at + std::chrono::milliseconds(70), [this, code] {
                keyUp(KeyEvent{code, KeyAction::up, queue_.clock().now()});
            });
            offset += code == KeyCode::space ? 0.16 : 0.09 + 0.06 * rng_.unit();
        }
    });
}

void Conductor::resetCalibration() {
    queue_.async([this] {
        classifier_.reset();
        typicalPosition_ = 1.0f;
    });
}

void Conductor::systemDidWake() {
    queue_.async([this] {
        if (suspended_) return;
        if (sensor_ && sensor_->isRunning()) {
            sensor_->stop();
            sensor_->start();
        }
        audio_->pause();
        audio_->start();
    });
}

void Conductor::shutdown() {
    queue_.sync([this] {
        if (sensor_) sensor_->stop();
        audio_->pause();
        suspended_ = true;
    });
}

void Conductor::setOnForce(std::function<void(const ForceReading&)> onForce) {
    queue_.async([this, onForce = std::move(onForce)]() mutable { onForce_ = std::move(onForce); });
}

void Conductor::setDiagnostics(Diagnostics diagnostics) {
    queue_.sync([this, &diagnostics] { diagnostics_ = std::move(diagnostics); });
}

bool Conductor::isSuspended() {
    return queue_.sync([this] { return suspended_; });
}

void Conductor::barrier() {
    queue_.sync([] {});
}

// MARK: Tags and the phrase

std::uint32_t Conductor::tagAfter(std::uint32_t last) { return last == UINT32_MAX ? 1 : last + 1; }

const std::array<std::uint16_t, 16>& Conductor::auditionPhrase() {
    // "mechanical click"
    using enum KeyCode;
    static constexpr std::array<std::uint16_t, 16> phrase{m, e, c, h, a, n, i, c, a, l, space, c, l, i, c, k};
    return phrase;
}

// MARK: Queue work

bool Conductor::releaseAll() {
    TBCommand release{};
    release.type = TB_COMMAND_RELEASE_ALL;
    return push(release);
}

bool Conductor::push(const TBCommand& command) {
    const bool pushed = tb_mixer_push(audio_->mixer(), &command);
    if (diagnostics_.command) diagnostics_.command(command, pushed);
    return pushed;
}

void Conductor::fillVoice(TBCommand& command, std::uint16_t code, float position, float relative,
                          Voicing::Variation variation) const {
    const KeyGroup group = KeyLayout::group(code);
    const auto variant = Voicing::variant(code, *pack_, group);
    const auto layers = pack_->layers(group, variant);
    Voicing::setLayers(command, layers.samples);
    command.pan = Voicing::pan(code, settings_);
    command.rate = variation.rate * Voicing::pitchFactor(code);
    const auto weights = Voicing::weights(position, relative, layers.gains, settings_.blendTiers, variation.gain);
    Voicing::setWeights(command, std::span<const float>(weights.begin(), weights.size()));
}

std::uint32_t Conductor::start(std::uint16_t code, float position, float relative, Voicing::Variation variation) {
    if (!pack_) return 0;
    nextTag_ = tagAfter(nextTag_);
    TBCommand command{};
    command.type = TB_COMMAND_START;
    command.tag = nextTag_;
    fillVoice(command, code, position, relative, variation);
    return push(command) ? command.tag : 0;
}

void Conductor::keyDown(const KeyEvent& event) {
    if (!settings_.enabled || !pack_) return;
    lastActivity_ = event.time;
    wake();

    if (settings_.forceSensing && sensor_ && sensor_->isRunning()) {
        float position = typicalPosition_;
        float relative = 1.0f;
        const auto window = sensor_->window(ticksBefore(event.time, windowLeadMs), queue_.clock().now());
        if (window) {
            const float measured = classifier_.relative(window->peak, sensor_->noiseFloor());
            if (measured >= 0.6f) {
                relative = measured;
                position = ForceClassifier::tierPosition(measured);
            }
        }
        const float u1 = float(rng_.unit());
        const float u2 = float(rng_.unit());
        const Voicing::Variation variation{1.0f + 0.06f * (2.0f * u1 - 1.0f), 1.0f + 0.004f * (2.0f * u2 - 1.0f)};
        const std::uint32_t tag = start(event.code, position, relative, variation);
        if (tag == 0) return;
        const std::uint64_t now = queue_.clock().now();
        for (int pass = 0; pass < int(refineAtMs.size()); ++pass) {
            const std::uint64_t deadline = now + MachTime::ticks(refineAtMs[pass]);
            queue_.asyncAt(deadline, [this, tag, event, variation, pass, deadline] {
                if (diagnostics_.refinement)
                    diagnostics_.refinement(pass, std::chrono::nanoseconds(queue_.clock().now() - deadline));
                refine(tag, event, variation, pass);
            });
        }
        return;
    }

    const double jitter = 0.3 * rng_.signedUnit();
    const float position = std::clamp(float(rawValue(settings_.fixedTier) + jitter), 0.0f, 3.0f);
    const std::uint32_t tag = start(event.code, position, 1.0f, Voicing::Variation{1.0f, 1.0f});
    if (tag == 0) return;
    downStrength_[event.code] = 1.0f;
    if (onForce_) onForce_(ForceReading{event.code, position, 1.0f, 0.0f, false});
}

void Conductor::refine(std::uint32_t tag, const KeyEvent& event, Voicing::Variation variation, int pass) {
    if (!sensor_ || !pack_) return;
    const bool final = pass == int(refineAtMs.size()) - 1;
    const std::uint64_t to = std::min(queue_.clock().now(), event.time + MachTime::ticks(windowLagMs));
    const auto window = sensor_->window(ticksBefore(event.time, windowLeadMs), to);
    if (!window) return;

    const float noise = sensor_->noiseFloor();
    const float threshold = 3.0f * noise <= 0.0015f ? 0.0015f : 3.0f * noise;
    if (window->peak > threshold) {
        const float relative = classifier_.relative(window->peak, noise);
        const float position = ForceClassifier::tierPosition(relative);
        TBCommand command{};
        command.type = TB_COMMAND_SET_WEIGHTS;
        command.tag = tag;
        fillVoice(command, event.code, position, relative, variation);
        push(command);
        if (final) {
            classifier_.record(window->peak);
            typicalPosition_ += (position - typicalPosition_) * 0.1f;
            downStrength_[event.code] = relative;
            if (onForce_) onForce_(ForceReading{event.code, position, relative, window->peak, true});
        }
    } else if (final) {
        downStrength_[event.code] = 1.0f;
        if (onForce_) onForce_(ForceReading{event.code, typicalPosition_, 1.0f, window->peak, false});
    }
}

void Conductor::keyUp(const KeyEvent& event) {
    if (!settings_.enabled || !settings_.releaseSounds || suspended_ || !pack_) return;
    std::optional<float> strength;
    if (auto found = downStrength_.find(event.code); found != downStrength_.end()) {
        strength = found->second;
        downStrength_.erase(found);
    }
    const KeyGroup group = KeyLayout::group(event.code);
    const auto release = pack_->release(group, Voicing::variant(event.code, *pack_, group));
    if (!release) return;

    const float level = Voicing::releaseStrength(strength);
    const float jitter = 1.0f + 0.05f * float(rng_.signedUnit());
    nextTag_ = tagAfter(nextTag_);
    TBCommand command{};
    command.type = TB_COMMAND_START;
    command.tag = nextTag_;
    command.layers[0] = release->sample;
    command.weights[0] = level * release->gain * 0.8f * jitter;
    command.pan = Voicing::pan(event.code, settings_);
    command.rate = Voicing::pitchFactor(event.code);
    push(command);
}

void Conductor::suspend() {
    if (!suspended_) releaseAll();
    if (sensor_) sensor_->stop();
    audio_->pause();
    suspended_ = true;
}

void Conductor::wake() {
    if (!settings_.enabled) return;
    if (suspended_ || !audio_->isRunning()) audio_->start();
    if (settings_.forceSensing && sensor_ && !sensor_->isRunning()) sensor_->start();
    suspended_ = false;
}

void Conductor::armIdleTimer() {
    // Absolute deadlines, so a late tick does not push the following ones back.
    idleDeadline_ += ticksOf(timing_.idleTick);
    queue_.asyncAt(idleDeadline_, [this] {
        idleTick();
        armIdleTimer();
    });
}

void Conductor::idleTick() {
    if (!suspended_ && MachTime::delta(queue_.clock().now(), lastActivity_) > timing_.idleLimitMs) suspend();
}

void Conductor::dropWhenSilent(std::shared_ptr<const LoadedPack> pack, std::uint64_t framesAtRelease,
                               std::uint64_t framesToFade) {
    if (audio_->renderedFrames() - framesAtRelease >= framesToFade) return; // the last reference goes here
    queue_.asyncAfter(timing_.packDropDelay, [this, pack, framesAtRelease, framesToFade] {
        dropWhenSilent(pack, framesAtRelease, framesToFade);
    });
}

} // namespace tobrin
