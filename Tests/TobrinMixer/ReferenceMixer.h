#pragma once
// A deliberately plain, frame-by-frame mixer written straight from the mixing
// rules, with no chunking, scratch buffers or early exits. The real mixer must
// produce exactly the same samples and counters.

#include "TobrinMixer.h"

#include <cstdint>
#include <deque>

namespace tobrin::test {

class ReferenceMixer {
public:
    ReferenceMixer(float sampleRate, float crossfadeMs);

    void push(const TBCommand& command) { queue_.push_back(command); }
    void setMaster(float gain);
    void render(float* left, float* right, std::uint32_t frames);

    std::uint32_t activeVoices() const { return activeVoices_; }
    std::uint64_t startedVoices() const { return startedVoices_; }

private:
    struct Layer {
        const float* left = nullptr;
        const float* right = nullptr;
        std::uint64_t frames = 0;
    };
    struct Voice {
        bool active = false;
        bool releasing = false;
        std::uint32_t tag = 0;
        std::uint64_t sequence = 0;
        Layer layers[4];
        float gain[4] = {};
        float target[4] = {};
        float step[4] = {};
        std::uint32_t rampLeft = 0;
        std::uint32_t length = 0;
        double position = 0;
        double rate = 0;
        float panLeft = 0;
        float panRight = 0;
    };

    void apply(const TBCommand& command);

    std::deque<TBCommand> queue_;
    Voice voices_[32];
    std::uint64_t sequence_ = 0;
    std::uint32_t fadeFrames_ = 1;
    std::uint32_t releaseFrames_ = 1;
    float masterTarget_ = 1.0f;
    float masterCurrent_ = 1.0f;
    std::uint32_t activeVoices_ = 0;
    std::uint64_t startedVoices_ = 0;
};

} // namespace tobrin::test
