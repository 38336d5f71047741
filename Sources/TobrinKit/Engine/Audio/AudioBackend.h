#pragma once

// The seam between AudioOutput and a sound server (or the null device).
//
// Thread contract:
//   control side (AudioOutput, under its lock): the constructor, start, pause,
//                                               isRunning, the destructor
//   backend's own thread (real-time):           Callbacks::render, underrun, section
//   backend's own threads (any, not real-time): Callbacks::configurationChanged
// A backend never calls render after pause() or its destructor has returned.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tobrin {

class AudioBackend {
public:
    struct Callbacks {
        // Fills `frames` frames of the non-interleaved float channels. Called
        // with one or two channel pointers; must not allocate, lock or log.
        void (*render)(void* context, float* const* channels, std::uint32_t channelCount,
                       std::uint32_t frames) = nullptr;
        // The server restarted, the connection was lost or the default device
        // changed: the owner reconnects. Never called from inside render.
        void (*configurationChanged)(void* context) = nullptr;
        // The server wanted a block the backend could not deliver in time (a
        // missed cycle, an underflow). Called where it is noticed, often the
        // real-time thread, so it only counts. May be null.
        void (*underrun)(void* context) = nullptr;
        // Optional: called on the render thread as the backend's real-time
        // work for a block begins (true) and ends (false), around render and
        // whatever the backend does with the server's buffer that it can keep
        // real-time safe (each backend's header says what), so tests and
        // measurements can watch it. May be null.
        void (*section)(void* context, bool entering) = nullptr;
        void* context = nullptr;
    };

    struct Format {
        double sampleRate = 48000;
        std::uint32_t channels = 2;
        std::uint32_t bufferFrames = 256; // requested device buffer
    };

    virtual ~AudioBackend() = default;

    // Connects if needed and starts pulling blocks through render. False with
    // `error` filled (a sentence a user can read) when that is impossible.
    virtual bool start(std::string& error) = 0;
    // Stops pulling blocks; returns once render is no longer running.
    virtual void pause() = 0;
    virtual bool isRunning() const = 0;
};

// How to make one kind of backend. Backends that live in targets of their own
// (they link a sound server's library) hand one of these to
// AudioBackends::add() at start-up; the null device is always registered.
struct AudioBackendFactory {
    std::string name;                  // what TOBRIN_AUDIO names it by
    std::function<bool()> isReachable; // cheap probe, e.g. the server's socket exists
    std::function<std::unique_ptr<AudioBackend>(const AudioBackend::Format&, const AudioBackend::Callbacks&)> create;
};

// The process-wide list of backend kinds, in order of preference.
namespace AudioBackends {

// Registers a backend kind ahead of the null device. Registering a name twice
// replaces the earlier entry. Thread-safe.
void add(AudioBackendFactory factory);

// Every registered kind in order of preference, the null device last.
std::vector<AudioBackendFactory> registered();

} // namespace AudioBackends
} // namespace tobrin
