#pragma once

// The null audio device: a thread named "Tobrin.Audio" that calls the
// render callback in blocks of the requested size at real-time pace, so the
// whole engine (mixer, voices, counters) runs on machines without a sound
// server, in tests and with TOBRIN_AUDIO=null. The output goes nowhere.
//
// Thread contract: start, pause, isRunning and the destructor belong to the
// owner (AudioOutput serialises them); render runs on the device thread only.

#include "TobrinKit/Engine/Audio/AudioBackend.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace tobrin {

class NullAudioBackend final : public AudioBackend {
public:
    static constexpr const char* name = "null";

    NullAudioBackend(const Format& format, const Callbacks& callbacks);
    ~NullAudioBackend() override;

    NullAudioBackend(const NullAudioBackend&) = delete;
    NullAudioBackend& operator=(const NullAudioBackend&) = delete;

    bool start(std::string& error) override;
    void pause() override;
    bool isRunning() const override;

    // Render calls made so far (any thread).
    std::uint64_t blocksRendered() const { return blocks_.load(std::memory_order_relaxed); }

    static AudioBackendFactory factory();

private:
    void run();

    Format format_;
    Callbacks callbacks_;
    // Allocated once here so that the device thread never allocates.
    std::vector<float> left_, right_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<std::uint64_t> blocks_{0};
};

} // namespace tobrin
