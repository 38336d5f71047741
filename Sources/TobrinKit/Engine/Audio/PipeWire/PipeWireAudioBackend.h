#pragma once

// Audio output through PipeWire: one playback stream ("Tobrin") that the
// session manager links to the default sink and moves when the default
// changes. It asks for a 256-frame quantum at 48 kHz and renders on the
// stream's real-time thread, straight into the stream's two planar float
// buffers (the graph's own format, so nothing is interleaved or copied).
//
// Threads: the connection lives on a PipeWire thread loop
// ("Tobrin.PipeWire"), which reports stream and connection events; the
// process callback runs on the client's real-time data thread and only
// renders; Callbacks::section brackets all of it, taking and returning the
// server's buffer included. A lost connection (server restart) or a failed stream is reported
// through Callbacks::configurationChanged; the owner then drops this backend
// and makes a new one.
//
// Thread contract: the constructor, start, pause, isRunning and the
// destructor belong to the owner (AudioOutput serialises them).

#include "TobrinKit/Engine/Audio/AudioBackend.h"

#include <filesystem>
#include <memory>
#include <string>

namespace tobrin {

class PipeWireAudioBackend final : public AudioBackend {
public:
    static constexpr const char* name = "pipewire";

    PipeWireAudioBackend(const Format& format, const Callbacks& callbacks);
    ~PipeWireAudioBackend() override;

    PipeWireAudioBackend(const PipeWireAudioBackend&) = delete;
    PipeWireAudioBackend& operator=(const PipeWireAudioBackend&) = delete;

    // Connects on the first call, then (re)activates the stream. Returns once
    // the stream is linked and streaming, or false after a time-out.
    bool start(std::string& error) override;
    void pause() override;
    bool isRunning() const override;

    // The socket the server of this session listens on: $PIPEWIRE_REMOTE when
    // it is a path, else $PIPEWIRE_RUNTIME_DIR or $XDG_RUNTIME_DIR joined with
    // $PIPEWIRE_REMOTE or "pipewire-0". Empty when no runtime folder is set.
    static std::filesystem::path socketPath();

    // Reachable when something accepts connections on socketPath(): a
    // socket file left behind by a killed server does not count.
    static AudioBackendFactory factory();

    struct Connection; // the PipeWire objects; defined in the source

private:
    std::unique_ptr<Connection> connection_;
};

} // namespace tobrin
