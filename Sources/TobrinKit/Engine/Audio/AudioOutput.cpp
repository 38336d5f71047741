#include "TobrinKit/Engine/Audio/AudioOutput.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>

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
    if (isRunning_ && backend_ && backend_->isRunning()) return true;

    std::string error;
    if (backend_) {
        if (backend_->start(error)) {
            isRunning_ = true;
            return true;
        }
        // The old connection is unusable; choose and connect afresh.
        logError("Tobrin: audio engine failed to start: " + backendName_ + ": " + error);
        backend_.reset();
        backendName_.clear();
    }

    const AudioBackend::Format format{sampleRate, 2, bufferFrames};
    const AudioBackend::Callbacks callbacks{&renderCallback, &configurationChangedCallback, this};
    const auto candidates = AudioBackends::candidates(backends_, forced_);
    if (candidates.empty()) {
        logError(forced_.empty() ? "Tobrin: audio engine failed to start: no audio device"
                                 : "Tobrin: audio engine failed to start: no audio backend named " + forced_);
    }
    for (const auto& candidate : candidates) {
        auto backend = candidate.create ? candidate.create(format, callbacks) : nullptr;
        error.clear();
        if (backend && backend->start(error)) {
            backend_ = std::move(backend);
            backendName_ = candidate.name;
            isRunning_ = true;
            return true;
        }
        if (!backend) error = "could not be created";
        logError("Tobrin: audio engine failed to start: " + candidate.name + ": " + error);
    }
    isRunning_ = false;
    return false;
}

void AudioOutput::pause() {
    std::lock_guard guard(lock_);
    if (!isRunning_) return;
    if (backend_) backend_->pause();
    isRunning_ = false;
}

bool AudioOutput::isRunning() const {
    std::lock_guard guard(lock_);
    return isRunning_;
}

void AudioOutput::handleConfigurationChange() {
    bool wasRunning = false;
    {
        std::lock_guard guard(lock_);
        wasRunning = isRunning_;
        isRunning_ = false;
        backend_.reset();
        backendName_.clear();
    }
    if (wasRunning) start();
}

float AudioOutput::volume() const { return tb_mixer_get_master(mixer_); }
void AudioOutput::setVolume(float gain) { tb_mixer_set_master(mixer_, gain); }

std::uint64_t AudioOutput::startedVoices() const { return tb_mixer_started_voices(mixer_); }
std::uint32_t AudioOutput::activeVoices() const { return tb_mixer_active_voices(mixer_); }
std::uint64_t AudioOutput::renderedFrames() const { return tb_mixer_rendered_frames(mixer_); }
std::uint64_t AudioOutput::droppedCommands() const { return tb_mixer_dropped_commands(mixer_); }

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

void AudioOutput::watchConfiguration() {
    std::unique_lock guard(changeLock_);
    for (;;) {
        changeSignal_.wait(guard, [this] { return changePending_ || closing_; });
        if (closing_) return;
        changePending_ = false;
        guard.unlock();
        handleConfigurationChange();
        guard.lock();
    }
}

} // namespace tobrin
