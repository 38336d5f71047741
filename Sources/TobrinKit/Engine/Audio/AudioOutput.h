#pragma once

// AudioOutput owns the voice mixer and connects it to the default output
// device through an audio backend (a sound server, or the null device when
// none is reachable or TOBRIN_AUDIO=null). Everything above it speaks in mixer
// commands through mixer().
//
// Backends are tried in the order given (the registered ones: PipeWire, then
// PulseAudio, then the null device), each sound server only when its socket
// accepts connections; every start from the stopped state prefers the best
// one again, so a server that appeared since is picked up. A connection lost
// while running falls back to the next backend that starts, and the output
// keeps trying the better ones every 250 ms until one is back or it is
// paused.
//
// Thread contract:
//   any control thread (main thread, conductor queue): start, pause, isRunning,
//       handleConfigurationChange, volume/setVolume, the counters, backendName.
//       start, pause and configuration changes are serialised by one mutex.
//   the backend's render thread: render only. It never takes that mutex; it
//       only calls the lock-free mixer.
//   the single producer of mixer() commands is the Conductor's queue.
// Construction and destruction belong to the owner; the destructor stops the
// device before it frees the mixer.

#include "TobrinKit/Engine/Audio/AudioBackend.h"

#include <TobrinMixer.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tobrin {

class AudioOutput {
public:
    static constexpr double sampleRate = 48000;
    static constexpr float crossfadeMilliseconds = 4;
    static constexpr std::uint32_t bufferFrames = 256;

    // The registered backends (AudioBackends::registered()), restricted to the
    // one named by the environment variable TOBRIN_AUDIO when it is set.
    AudioOutput();
    // The given backends in order of preference; `forced` names the only one
    // to use, or is empty for the first reachable one that starts.
    AudioOutput(std::vector<AudioBackendFactory> backends, std::string forced);
    ~AudioOutput();

    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    // Connects (choosing the most preferred backend that starts) and starts
    // rendering. True at once when already running. Logs "Tobrin: audio
    // engine failed to start: " and the reason for every backend tried that
    // did not start; returns false when none did, and the next call tries
    // again.
    bool start();
    void pause();
    bool isRunning() const;

    // The default device changed, the server restarted or the connection was
    // lost: drops the connection and, if the output was running, starts again
    // (reconnecting, falling back and retrying as above); a paused output
    // stays paused. Backends reach it through their configurationChanged
    // callback, handled on a thread of this object.
    void handleConfigurationChange();

    // Master gain, clamped by the mixer to [0, 4].
    float volume() const;
    void setVolume(float gain);

    std::uint64_t startedVoices() const;
    std::uint32_t activeVoices() const;
    std::uint64_t renderedFrames() const;
    std::uint64_t droppedCommands() const;
    // Blocks the server wanted that a backend could not deliver in time, over
    // the output's life (every backend and reconnection).
    std::uint64_t underruns() const;

    // The name of the backend in use ("null", ...), empty before the first
    // successful start.
    std::string backendName() const;

    TBMixer* mixer() const { return mixer_; }

    // The render callback: channels[0] is left; channels[1], when present and
    // not null, is right, otherwise the mixer renders mono into left. Nothing
    // is rendered without a left buffer.
    static void render(TBMixer* mixer, float* const* channels, std::uint32_t channelCount, std::uint32_t frames);

private:
    static void renderCallback(void* context, float* const* channels, std::uint32_t channelCount, std::uint32_t frames);
    static void configurationChangedCallback(void* context);
    static void underrunCallback(void* context);
    void watchConfiguration();
    // With lock_ held.
    std::unique_ptr<AudioBackend> make(const AudioBackendFactory& factory);
    bool connect();
    std::size_t rankOf(const std::string& name) const;
    // Tries the backends better than the one in use; stops retrying once the
    // one lost (or a better one) is back, or the owner paused.
    void retryBetterBackends();

    TBMixer* mixer_ = nullptr;
    std::vector<AudioBackendFactory> backends_;
    std::string forced_;

    mutable std::mutex lock_; // serialises start, pause and reconnection
    std::unique_ptr<AudioBackend> backend_;
    std::string backendName_;
    bool isRunning_ = false;    // what this object believes (under lock_)
    bool wanted_ = false;       // the owner started and has not paused (under lock_)
    std::size_t retryUpTo_ = 0; // retry the backends ranked up to this (under lock_)

    std::atomic<std::uint64_t> underruns_{0};

    // Configuration changes arrive on backend threads; they are handled here
    // so that a backend is never torn down from one of its own threads.
    std::mutex changeLock_;
    std::condition_variable changeSignal_;
    bool changePending_ = false;
    bool closing_ = false;
    bool retrying_ = false; // a better backend may come back: retry on a timer
    std::thread changeThread_;
};

} // namespace tobrin
