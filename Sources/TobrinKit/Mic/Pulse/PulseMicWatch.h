#pragma once

// The microphone watch over libpulse: introspection and subscription, which
// PulseAudio and PipeWire's pulse server both answer. It maps the server's
// view onto MicActivity:
// - the default input is the server's default source; its name for people is
//   the source's description;
// - it has output when it is a sink's monitor or its card also has a sink
//   (a headset);
// - it runs somewhere when its state is RUNNING, unless every uncorked
//   capture stream on it is this process's own;
// - the recording processes are those of uncorked capture streams on
//   non-monitor sources (the client's process id, else the stream's), this
//   process excluded.
// It never opens a stream. A lost connection (the server restarted) is
// reported as an unknown state, then the watch reconnects with back-off and
// sends the whole state again.
//
// Thread contract: as MicWatch. Updates run on libpulse's threaded main loop
// "Tobrin.Mic".

#include <chrono>
#include <memory>

#include "TobrinKit/Mic/MicWatch.h"

namespace tobrin {

class PulseMicWatch final : public MicWatch {
public:
    struct Options {
        // Waits between connection attempts, doubling from the first to the longest.
        std::chrono::milliseconds firstRetry{100};
        std::chrono::milliseconds longestRetry{2000};
    };

    PulseMicWatch();
    explicit PulseMicWatch(Options options);
    ~PulseMicWatch() override;

    void start(Update update) override;
    void stop() override;
    void resync() override;
    std::optional<MicActivity> readOnce(std::chrono::milliseconds timeout) override;

    // The name this watch's connections give the server (application.id).
    static constexpr const char* clientId = "app.tobrin.mic";

private:
    struct Loop;
    Options options_;
    std::unique_ptr<Loop> loop_;
};

// The watch the programs use.
std::unique_ptr<MicWatch> makePulseMicWatch();

} // namespace tobrin
