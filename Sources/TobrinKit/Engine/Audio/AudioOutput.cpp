#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Audio/NullAudioBackend.h"

#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace tobrin {
namespace {

void logError(const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    syslog(LOG_ERR, "%s", message.c_str());
}

std::string environmentChoice() {
    const char* value = std::getenv("TOBRIN_AUDIO");
    return value ? std::string(value) : std::string();
}

} // namespace

AudioOutput::AudioOutput() : AudioOutput(AudioBackends::registered(), environmentChoice()) {}

AudioOutput::AudioOutput(std::vector<AudioBackendFactory> backends, std::string forced)
    : backends_(std::move(backends)), forced_(std::move(forced)) {
    mixer_ = tb_mixer_create(float(sampleRate), crossfadeMilliseconds);
    if (!mixer_) {
        logError("Tobrin: could not create the voice mixer");
        std::abort();
    }
    changeThread_ = std::thread([this] { watchConfiguration(); });
}

AudioOutput::~AudioOutput() {
    {
        std::lock_guard guard(changeLock_);
        closing_ = true;
    }
    changeSignal_.notify_one();
    changeThread_.join();
    {
        std::lock_guard guard(lock_);
        backend_.reset(); // joins the render thread before the mixer goes
        isRunning_ = false;
    }
    tb_mixer_destroy(mixer_);
}

bool AudioOutput::start() {
    std::lock_guard guard(lock_);
    wanted_ = true;
    return connect();
}

std::size_t AudioOutput::rankOf(const std::string& name) const {
    for (std::size_t rank = 0; rank < backends_.size(); ++rank)
        if (backends_[rank].name == name) return rank;
    return backends_.size();
}

std::unique_ptr<AudioBackend> AudioOutput::make(const AudioBackendFactory& factory) {
    const AudioBackend::Format format{sampleRate, 2, bufferFrames};
    const AudioBackend::Callbacks callbacks{&renderCallback, &configurationChangedCallback, &underrunCallback, nullptr,
                                            this};
    return factory.create ? factory.create(format, callbacks) : nullptr;
}

bool AudioOutput::connect() {
    if (isRunning_ && backend_ && backend_->isRunning()) return true;
    if (isRunning_ && backend_) backend_->pause(); // it stopped by itself
    isRunning_ = false;

    // Why each backend tried did not start. Printed when a new connection is
    // made or none can be, not when a paused one simply resumes.
    std::vector<std::string> reasons;
    const auto report = [&reasons] {
        for (const auto& reason : reasons) logError("Tobrin: audio engine failed to start: " + reason);
    };
    for (const auto& candidate : backends_) {
        if (!forced_.empty() && candidate.name != forced_) continue;
        std::string error;
        if (backend_ && candidate.name == backendName_) {
            if (backend_->start(error)) {
                isRunning_ = true;
                return true;
            }
            reasons.push_back(candidate.name + ": " + error);
            backend_.reset();
            backendName_.clear();
            continue;
        }
        if (forced_.empty() && candidate.isReachable && !candidate.isReachable()) {
            reasons.push_back(candidate.name + ": no server is running");
            continue;
        }
        auto backend = make(candidate);
        if (backend && backend->start(error)) {
            backend_ = std::move(backend); // a paused, less preferred one goes
            backendName_ = candidate.name;
            isRunning_ = true;
            report();
            if (!reasons.empty() && candidate.name == NullAudioBackend::name)
                logError("Tobrin: no sound server could be used; sounds go to the null device");
            return true;
        }
        reasons.push_back(candidate.name + ": " + (backend ? error : "could not be created"));
    }
    if (reasons.empty()) reasons.push_back(forced_.empty() ? "no audio device" : "no audio backend named " + forced_);
    report();
    return false;
}

void AudioOutput::pause() {
    std::lock_guard guard(lock_);
    wanted_ = false;
    if (!isRunning_) return;
    if (backend_) backend_->pause();
    isRunning_ = false;
}

bool AudioOutput::isRunning() const {
    std::lock_guard guard(lock_);
    return isRunning_;
}

void AudioOutput::handleConfigurationChange() {
    bool wanted = false;
    std::size_t lostRank = 0;
    {
        std::lock_guard guard(lock_);
        wanted = wanted_;
        lostRank = rankOf(backendName_);
        isRunning_ = false;
        backend_.reset();
        backendName_.clear();
    }
    if (!wanted) return;
    start();
    bool retry = false;
    {
        std::lock_guard guard(lock_);
        // Fell back to a worse backend (or none): the lost server is likely
        // restarting, so keep asking for it.
        if (wanted_ && (!isRunning_ || rankOf(backendName_) > lostRank)) {
            retryUpTo_ = lostRank;
            retry = true;
        }
    }
    if (retry) {
        {
            std::lock_guard guard(changeLock_);
            retrying_ = true;
        }
        changeSignal_.notify_one(); // the watcher may be waiting without a time-out
    }
}

void AudioOutput::retryBetterBackends() {
    bool done = false;
    {
        std::lock_guard guard(lock_);
        const std::size_t current = isRunning_ ? rankOf(backendName_) : backends_.size();
        done = !wanted_ || current <= retryUpTo_;
        for (std::size_t rank = 0; !done && rank < current; ++rank) {
            const auto& candidate = backends_[rank];
            if (!forced_.empty() && candidate.name != forced_) continue;
            if (candidate.isReachable && !candidate.isReachable()) continue;
            // One consumer of the mixer at a time: the fallback pauses while
            // the better backend tries, and resumes if it fails.
            if (backend_ && isRunning_) backend_->pause();
            auto backend = make(candidate);
            std::string error;
            if (backend && backend->start(error)) {
                backend_ = std::move(backend);
                backendName_ = candidate.name;
                isRunning_ = true;
                done = rank <= retryUpTo_;
                break;
            }
            if (backend_ && isRunning_) isRunning_ = backend_->start(error);
        }
    }
    if (done) {
        std::lock_guard guard(changeLock_);
        retrying_ = false;
    }
}

float AudioOutput::volume() const { return tb_mixer_get_master(mixer_); }
void AudioOutput::setVolume(float gain) { tb_mixer_set_master(mixer_, gain); }

std::uint64_t AudioOutput::startedVoices() const { return tb_mixer_started_voices(mixer_); }
std::uint32_t AudioOutput::activeVoices() const { return tb_mixer_active_voices(mixer_); }
std::uint64_t AudioOutput::renderedFrames() const { return tb_mixer_rendered_frames(mixer_); }
std::uint64_t AudioOutput::droppedCommands() const { return tb_mixer_dropped_commands(mixer_); }
std::uint64_t AudioOutput::underruns() const { return underruns_.load(std::memory_order_relaxed); }

std::string AudioOutput::backendName() const {
    std::lock_guard guard(lock_);
    return backendName_;
}

void AudioOutput::render(TBMixer* mixer, float* const* channels, std::uint32_t channelCount, std::uint32_t frames) {
    if (channelCount == 0 || channels == nullptr || channels[0] == nullptr) return;
    float* left = channels[0];
    float* right = channelCount >= 2 && channels[1] != nullptr ? channels[1] : left;
    tb_mixer_render(mixer, left, right, frames);
}

void AudioOutput::renderCallback(void* context, float* const* channels, std::uint32_t channelCount,
                                 std::uint32_t frames) {
    render(static_cast<AudioOutput*>(context)->mixer_, channels, channelCount, frames);
}

void AudioOutput::configurationChangedCallback(void* context) {
    auto* self = static_cast<AudioOutput*>(context);
    {
        std::lock_guard guard(self->changeLock_);
        self->changePending_ = true;
    }
    self->changeSignal_.notify_one();
}

void AudioOutput::underrunCallback(void* context) {
    static_cast<AudioOutput*>(context)->underruns_.fetch_add(1, std::memory_order_relaxed);
}

void AudioOutput::watchConfiguration() {
    constexpr auto retryInterval = std::chrono::milliseconds(250);
    std::unique_lock guard(changeLock_);
    for (;;) {
        const auto woken = [this] { return changePending_ || closing_; };
        if (retrying_)
            changeSignal_.wait_for(guard, retryInterval, woken);
        else
            changeSignal_.wait(guard, [&] { return woken() || retrying_; });
        if (closing_) return;
        const bool changed = std::exchange(changePending_, false);
        const bool retry = retrying_;
        guard.unlock();
        if (changed)
            handleConfigurationChange();
        else if (retry)
            retryBetterBackends();
        guard.lock();
    }
}

} // namespace tobrin
