#pragma once

// Audio output through a PulseAudio server (or PipeWire's pulse server): one
// float32 stereo 48 kHz playback stream on the default sink, asking for a
// 256-frame target buffer and letting the server adjust the sink's latency to
// it. Each write request is rendered into buffers allocated here, interleaved
// into the server's buffer and written.
//
// Threads: the connection and the write callback live on libpulse's threaded
// main loop ("Tobrin.Pulse"); the write callback runs with the loop's lock
// held, so pause() and the destructor, which take that lock, never overlap
// it. Callbacks::section brackets the rendering and interleaving of each
// block; libpulse's own begin-write and write calls stay outside, as they may
// allocate (a PulseAudio client's main loop is not a real-time thread). A
// failed connection or stream, or a default sink the server did not
// move the stream to, is reported through Callbacks::configurationChanged.
//
// Thread contract: the constructor, start, pause, isRunning and the
// destructor belong to the owner (AudioOutput serialises them).

#include "TobrinKit/Engine/Audio/AudioBackend.h"

#include <filesystem>
#include <memory>
#include <string>

namespace tobrin {

class PulseAudioBackend final : public AudioBackend {
public:
    static constexpr const char* name = "pulse";

    PulseAudioBackend(const Format& format, const Callbacks& callbacks);
    ~PulseAudioBackend() override;

    PulseAudioBackend(const PulseAudioBackend&) = delete;
    PulseAudioBackend& operator=(const PulseAudioBackend&) = delete;

    // Connects on the first call (never spawning a server), then uncorks the
    // stream. Returns once the stream is ready, or false after a time-out.
    bool start(std::string& error) override;
    void pause() override;
    bool isRunning() const override;

    // The socket of this session's server: the unix: path of $PULSE_SERVER,
    // else $XDG_RUNTIME_DIR/pulse/native. Empty when neither says.
    static std::filesystem::path socketPath();

    // Reachable when the server accepts connections there, or when
    // $PULSE_SERVER names a server that is not a local socket.
    static AudioBackendFactory factory();

    struct Connection; // the libpulse objects; defined in the source

private:
    std::unique_ptr<Connection> connection_;
};

} // namespace tobrin
