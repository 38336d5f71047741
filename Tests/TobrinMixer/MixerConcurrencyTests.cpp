// One producer pushing while one consumer renders, as the conductor and the audio
// thread do. Run under ThreadSanitizer by tools/test.
#include "Support/Mixer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace tobrin::test {
namespace {

TEST(MixerConcurrency, EveryAcceptedCommandIsAppliedOnceAndInOrder) {
    // Command i starts a one-frame voice whose only sample is values[i]: exact
    // multiples of 2^-16, so sums of up to 32 of them are exact in float.
    constexpr std::uint32_t total = 100000;
    std::vector<float> values(total);
    for (std::uint32_t i = 0; i < total; ++i) values[i] = float((i * 2654435761u) % 251 + 1) * 0x1.0p-16f;

    auto mixer = makeMixer();
    std::atomic<bool> producerDone{false};
    std::uint64_t refused = 0;

    std::thread producer([&] {
        for (std::uint32_t i = 0; i < total;) {
            const TBCommand command = startCommand(i + 1, {TBSample{&values[i], nullptr, 1}}, {1});
            if (tb_mixer_push(mixer.get(), &command)) {
                ++i;
            } else {
                ++refused;
                std::this_thread::yield();
            }
        }
        producerDone.store(true);
    });

    // Each render applies a contiguous run of starts. When a run holds more than
    // 32 starts, the earlier ones are stolen by the later ones before a frame is
    // mixed, so the frame is the sum of the last min(run, 32) values — which
    // holds only if every command arrives intact, once, and in order.
    std::uint64_t applied = 0, mismatches = 0;
    float frame = 0;
    while (applied < total) {
        const bool finished = producerDone.load();
        tb_mixer_render(mixer.get(), &frame, nullptr, 1);
        const std::uint64_t started = tb_mixer_started_voices(mixer.get());
        const std::uint64_t run = started - applied;
        float expected = 0;
        for (std::uint64_t i = applied + (run > 32 ? run - 32 : 0); i < started; ++i) expected += values[i];
        if (frame != expected) ++mismatches;
        applied = started;
        if (finished && run == 0 && applied < total) break; // nothing more can arrive
    }
    producer.join();

    EXPECT_EQ(applied, total);
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(tb_mixer_dropped_commands(mixer.get()), refused);
}

TEST(MixerConcurrency, MasterAndCountersMayBeReadWhileRendering) {
    auto mixer = makeMixer();
    const std::vector<float> take(48000, 0.1f);
    std::atomic<bool> stop{false};
    std::thread renderer([&] {
        std::vector<float> left(256), right(256);
        while (!stop.load()) tb_mixer_render(mixer.get(), left.data(), right.data(), 256);
    });
    std::uint64_t lastFrames = 0;
    for (int i = 0; i < 2000; ++i) {
        const TBCommand start = startCommand(std::uint32_t(i + 1), {sampleOf(take)}, {1});
        tb_mixer_push(mixer.get(), &start);
        tb_mixer_set_master(mixer.get(), float(i % 5));
        // Read while the renderer writes: the thread sanitizer reports a race.
        (void)tb_mixer_get_master(mixer.get());
        (void)tb_mixer_active_voices(mixer.get());
        const std::uint64_t frames = tb_mixer_rendered_frames(mixer.get());
        EXPECT_GE(frames, lastFrames);
        lastFrames = frames;
    }
    stop.store(true);
    renderer.join();
    EXPECT_EQ(tb_mixer_rendered_frames(mixer.get()) % 256, 0u);
}

} // namespace
} // namespace tobrin::test
