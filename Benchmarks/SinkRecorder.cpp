// SinkRecorder: records a sink's monitor and says, for every frame, when the
// sound server played it, on CLOCK_MONOTONIC (the clock of key events). The
// latency bench runs it as a separate process, so its work never counts
// against the process it measures.
//
//   SinkRecorder pipewire|pulse SINK OUT [SECONDS]
//
// Mapping a captured frame onto the server's clock:
//   PipeWire: a capture buffer carries the time of the graph cycle it was
//     captured in (pw_time.now); frame i of it is at that time + i / rate.
//   PulseAudio: the record stream's timing info says where the server was
//     writing at a time stamp, and how long the monitored sink takes to play
//     what it rendered (sink_usec) and the source to deliver it (source_usec);
//     the median over the snapshots within a second of a frame times it.
// Calibration: that mapping may sit a constant away from the moment of
// playing (a monitor of the driving sink reaches a capture a cycle late). So
// first a calibration stream of this program plays 16 one-frame clicks into
// the sink, each where the server states it will play: PipeWire, the cycle the
// stream fills (plus the delay it reports); PulseAudio, from the playback
// stream's timing info. The median of (mapped capture time - stated play time)
// over the clicks is subtracted from every frame; their spread is printed.
//
// Prints "calibrated OFFSET_US SPREAD_US CLICKS" and then "ready" on standard
// output, records until SIGTERM, SIGINT or SECONDS (default 300), and writes
// OUT: "TBREC1", then int64 block count, blocks of {int64 first frame, int64
// play time in ns}, int64 frame count, and one float per frame (the larger
// magnitude of the two channels).

#include <pipewire/pipewire.h>
#include <pulse/pulseaudio.h>
#include <spa/param/audio/format-utils.h>

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr double rate = 48000;
constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr int calibrationClicks = 16;
constexpr float clickLevel = 0.5f;

std::atomic<bool> stopRequested{false};

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
}

std::int64_t framesToNanoseconds(double frames) { return std::llround(frames * double(nanosecondsPerSecond) / rate); }

// What the capture keeps, allocated before it starts so the capture callback
// only copies.
struct Recording {
    struct Block {
        std::int64_t firstFrame;
        std::int64_t time; // mapped time of the first frame, before calibration
    };
    std::vector<float> frames;
    std::vector<Block> blocks;
    std::atomic<std::size_t> frameCount{0};
    std::atomic<std::size_t> blockCount{0};

    explicit Recording(double seconds)
        : frames(std::size_t(seconds * rate)), blocks(std::size_t(seconds * rate / 32) + 16) {}

    // Appends interleaved stereo (or nothing but time, for a hole of silence).
    void append(std::int64_t time, const float* stereo, std::size_t count) {
        const std::size_t first = frameCount.load(std::memory_order_relaxed);
        const std::size_t block = blockCount.load(std::memory_order_relaxed);
        if (block >= blocks.size() || first + count > frames.size()) return;
        blocks[block] = {std::int64_t(first), time};
        for (std::size_t f = 0; f < count; ++f)
            frames[first + f] = stereo ? std::max(std::fabs(stereo[2 * f]), std::fabs(stereo[2 * f + 1])) : 0.0f;
        frameCount.store(first + count, std::memory_order_release);
        blockCount.store(block + 1, std::memory_order_release);
    }

    // The mapped time of the first frame at or above `level` whose time lies
    // in [from, to), or -1.
    std::int64_t find(float level, std::int64_t from, std::int64_t to) const {
        const std::size_t count = blockCount.load(std::memory_order_acquire);
        const std::size_t total = frameCount.load(std::memory_order_acquire);
        for (std::size_t b = 0; b < count; ++b) {
            const std::size_t end = b + 1 < count ? std::size_t(blocks[b + 1].firstFrame) : total;
            for (std::size_t f = std::size_t(blocks[b].firstFrame); f < end; ++f) {
                const std::int64_t t =
                    blocks[b].time + framesToNanoseconds(double(f - std::size_t(blocks[b].firstFrame)));
                if (t >= to) return -1;
                if (t >= from && frames[f] >= level) return t;
            }
        }
        return -1;
    }
};

// The clicks of the calibration stream: when the server said each would play.
struct Clicks {
    std::atomic<int> armed{0};
    std::atomic<int> played{0};
    std::int64_t stated[calibrationClicks] = {};
};

struct Calibration {
    std::int64_t offset = 0;
    std::int64_t spread = 0;
    int clicks = 0;
};

Calibration calibrate(const Recording& recording, const Clicks& clicks) {
    std::vector<std::int64_t> offsets;
    for (int i = 0; i < clicks.played.load(); ++i) {
        const std::int64_t stated = clicks.stated[i];
        const std::int64_t found = recording.find(clickLevel / 2, stated - 40'000'000, stated + 40'000'000);
        if (found >= 0) offsets.push_back(found - stated);
    }
    Calibration result;
    result.clicks = int(offsets.size());
    if (offsets.empty()) return result;
    std::sort(offsets.begin(), offsets.end());
    result.offset = offsets[offsets.size() / 2];
    result.spread = offsets.back() - offsets.front();
    return result;
}

// Plays the calibration clicks, one every 100 ms, through `arm`.
void playClicks(Clicks& clicks) {
    for (int i = 0; i < calibrationClicks && !stopRequested; ++i) {
        clicks.armed = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

// Waits until the capture has delivered a tenth of a second.
bool waitForFrames(const Recording& recording) {
    for (int i = 0; i < 500 && !stopRequested; ++i) {
        if (recording.frameCount.load() > 4800) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fprintf(stderr, "SinkRecorder: the monitor delivers nothing\n");
    return false;
}

void announce(const Calibration& calibration) {
    std::printf("calibrated %.1f %.1f %d\nready\n", double(calibration.offset) / 1e3, double(calibration.spread) / 1e3,
                calibration.clicks);
    std::fflush(stdout);
}

// Records until asked to stop or for `seconds`.
void record(double seconds) {
    const std::int64_t end = monotonicNanoseconds() + std::int64_t(seconds * 1e9);
    while (!stopRequested && monotonicNanoseconds() < end) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// MARK: PipeWire

struct PipeWireRecorder {
    Recording& recording;
    Clicks& clicks;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* capture = nullptr;
    pw_stream* player = nullptr;
    spa_hook captureListener{}, playerListener{};
    pw_stream_events captureEvents{}, playerEvents{};

    static void onCapture(void* data) {
        auto* self = static_cast<PipeWireRecorder*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->capture);
        if (!buffer) return;
        pw_time time{};
        pw_stream_get_time_n(self->capture, &time, sizeof time);
        const spa_data& d = buffer->buffer->datas[0];
        const auto* samples = static_cast<const float*>(d.data);
        if (samples && d.chunk->size > 0)
            self->recording.append(time.now, samples + d.chunk->offset / sizeof(float),
                                   d.chunk->size / (2 * sizeof(float)));
        pw_stream_queue_buffer(self->capture, buffer);
    }

    static void onPlay(void* data) {
        auto* self = static_cast<PipeWireRecorder*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->player);
        if (!buffer) return;
        spa_data& d = buffer->buffer->datas[0];
        auto* samples = static_cast<float*>(d.data);
        std::uint32_t frames = std::uint32_t(d.maxsize / (2 * sizeof(float)));
        if (buffer->requested) frames = std::min(frames, std::uint32_t(buffer->requested));
        std::memset(samples, 0, frames * 2 * sizeof(float));
        if (self->clicks.armed.exchange(0) && self->clicks.played < calibrationClicks) {
            pw_time time{};
            pw_stream_get_time_n(self->player, &time, sizeof time);
            samples[0] = samples[1] = clickLevel;
            const double delay = time.rate.denom ? double(time.delay) * rate * time.rate.num / time.rate.denom : 0;
            self->clicks.stated[self->clicks.played] = time.now + framesToNanoseconds(delay);
            self->clicks.played += 1;
        }
        d.chunk->offset = 0;
        d.chunk->stride = 2 * sizeof(float);
        d.chunk->size = frames * 2 * sizeof(float);
        pw_stream_queue_buffer(self->player, buffer);
    }

    pw_stream* makeStream(const char* name, bool capturing, const std::string& sink, spa_hook& listener,
                          pw_stream_events& events, void (*process)(void*)) {
        pw_properties* props =
            pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, capturing ? "Capture" : "Playback",
                              PW_KEY_NODE_LATENCY, "256/48000", PW_KEY_TARGET_OBJECT, sink.c_str(), nullptr);
        if (capturing) pw_properties_set(props, PW_KEY_STREAM_CAPTURE_SINK, "true");
        pw_stream* stream = pw_stream_new(core, name, props);
        events.version = PW_VERSION_STREAM_EVENTS;
        events.process = process;
        pw_stream_add_listener(stream, &listener, &events, this);
        std::uint8_t pod[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(pod, sizeof pod);
        spa_audio_info_raw info{};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.rate = std::uint32_t(rate);
        info.channels = 2;
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
        const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
        pw_stream_connect(
            stream, capturing ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT, PW_ID_ANY,
            pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS),
            params, 1);
        return stream;
    }

    bool run(const std::string& sink, Calibration& calibration, double seconds) {
        pw_init(nullptr, nullptr);
        loop = pw_thread_loop_new("recorder", nullptr);
        pw_thread_loop_start(loop);
        pw_thread_loop_lock(loop);
        context = pw_context_new(pw_thread_loop_get_loop(loop),
                                 pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
        core = pw_context_connect(context, nullptr, 0);
        if (!core) {
            pw_thread_loop_unlock(loop);
            std::fprintf(stderr, "SinkRecorder: cannot connect to PipeWire\n");
            return false;
        }
        capture = makeStream("tobrin-sink-recorder", true, sink, captureListener, captureEvents, &onCapture);
        pw_thread_loop_unlock(loop);
        if (!waitForFrames(recording)) return false;

        pw_thread_loop_lock(loop);
        player = makeStream("tobrin-calibration", false, sink, playerListener, playerEvents, &onPlay);
        pw_thread_loop_unlock(loop);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        playClicks(clicks);
        pw_thread_loop_lock(loop);
        pw_stream_destroy(player);
        pw_thread_loop_unlock(loop);
        calibration = calibrate(recording, clicks);
        announce(calibration);
        record(seconds);
        pw_thread_loop_lock(loop);
        pw_stream_destroy(capture);
        pw_core_disconnect(core);
        pw_thread_loop_unlock(loop);
        pw_thread_loop_stop(loop);
        return true;
    }
};

// MARK: PulseAudio

// Timing-info time stamps are on the wall clock; this converts them.
std::int64_t timestampNanoseconds(const pa_timing_info* info) {
    timespec wall{}, monotonic{};
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    const std::int64_t shift = (std::int64_t(wall.tv_sec) - std::int64_t(monotonic.tv_sec)) * nanosecondsPerSecond +
                               (wall.tv_nsec - monotonic.tv_nsec);
    return std::int64_t(pa_timeval_load(&info->timestamp)) * 1000 - shift;
}

// A stream's timing snapshots, each an estimate of when position 0 of the
// stream plays; a position's time uses the median of the estimates taken
// within a second of it, which removes the jitter of single snapshots and
// follows any discontinuity.
struct Snapshots {
    struct Estimate {
        std::int64_t position; // frames
        std::int64_t origin;   // play time of frame 0, ns
    };
    std::vector<Estimate> estimates;
    pa_usec_t lastStamp = 0;

    Snapshots() { estimates.reserve(100000); }

    void note(const pa_timing_info* info, std::int64_t position, std::int64_t playsAt) {
        if (!info || info->read_index_corrupt || info->write_index_corrupt) return;
        const pa_usec_t stamp = pa_timeval_load(&info->timestamp);
        if (stamp == lastStamp || estimates.size() == estimates.capacity()) return;
        lastStamp = stamp;
        estimates.push_back({position, playsAt - framesToNanoseconds(double(position))});
    }

    std::int64_t timeOf(std::int64_t position) const {
        std::vector<std::int64_t> near;
        for (const auto& estimate : estimates)
            if (std::llabs(estimate.position - position) <= std::int64_t(rate)) near.push_back(estimate.origin);
        if (near.empty())
            for (const auto& estimate : estimates) near.push_back(estimate.origin);
        if (near.empty()) return 0;
        std::nth_element(near.begin(), near.begin() + std::ptrdiff_t(near.size() / 2), near.end());
        return near[near.size() / 2] + framesToNanoseconds(double(position));
    }
};

struct PulseRecorder {
    Recording& recording;
    Clicks& clicks;
    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    pa_stream* capture = nullptr;
    pa_stream* player = nullptr;
    std::int64_t captured = 0; // frames read
    std::int64_t written = 0;  // frames written by the calibration stream
    Snapshots captureTiming{}, playerTiming{};
    std::int64_t clickPositions[calibrationClicks] = {};
    std::atomic<bool> calibrating{true};

    // A monitor's frame at write_index was rendered source_usec before the
    // time stamp, and the sink plays it sink_usec after rendering.
    static void onRead(pa_stream* stream, std::size_t, void* data) {
        auto* self = static_cast<PulseRecorder*>(data);
        const void* bytes = nullptr;
        std::size_t size = 0;
        while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &bytes, &size) == 0 && size > 0) {
            const pa_timing_info* info = pa_stream_get_timing_info(stream);
            if (info) {
                const auto writeIndex = std::int64_t(info->write_index) / std::int64_t(2 * sizeof(float));
                self->captureTiming.note(info, writeIndex,
                                         timestampNanoseconds(info) - std::int64_t(info->source_usec) * 1000 +
                                             std::int64_t(info->sink_usec) * 1000);
            }
            const std::size_t frames = size / (2 * sizeof(float));
            self->recording.append(0, static_cast<const float*>(bytes), frames); // a hole is silence
            self->captured += std::int64_t(frames);
            pa_stream_drop(stream);
        }
    }

    // The frame at read_index plays sink_usec after the time stamp.
    static void onWrite(pa_stream* stream, std::size_t bytes, void* data) {
        auto* self = static_cast<PulseRecorder*>(data);
        std::vector<float> block(bytes / sizeof(float), 0.0f);
        const pa_timing_info* info = pa_stream_get_timing_info(stream);
        if (info && info->playing)
            self->playerTiming.note(info, std::int64_t(info->read_index) / std::int64_t(2 * sizeof(float)),
                                    timestampNanoseconds(info) + std::int64_t(info->sink_usec) * 1000);
        if (!block.empty() && self->clicks.armed.exchange(0) && self->clicks.played < calibrationClicks) {
            block[0] = block[1] = clickLevel;
            self->clickPositions[self->clicks.played] = self->written;
            self->clicks.played += 1;
        }
        pa_stream_write(stream, block.data(), block.size() * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
        self->written += std::int64_t(block.size() / 2);
    }

    // Times every block recorded so far, and every click played.
    void mapTimes() {
        pa_threaded_mainloop_lock(loop);
        const std::size_t count = recording.blockCount.load();
        for (std::size_t b = 0; b < count; ++b)
            recording.blocks[b].time = captureTiming.timeOf(recording.blocks[b].firstFrame);
        for (int i = 0; i < clicks.played; ++i) clicks.stated[i] = playerTiming.timeOf(clickPositions[i]);
        pa_threaded_mainloop_unlock(loop);
    }

    static void onState(pa_context*, void* data) {
        pa_threaded_mainloop_signal(static_cast<PulseRecorder*>(data)->loop, 0);
    }

    // Asks for timing info every 50 ms (libpulse's automatic updates back
    // off to seconds), for the calibration stream while it plays.
    void updateTiming() {
        const bool forClicks = calibrating;
        while (!stopRequested && calibrating == forClicks) {
            pa_threaded_mainloop_lock(loop);
            if (pa_operation* o = pa_stream_update_timing_info(capture, nullptr, nullptr)) pa_operation_unref(o);
            if (forClicks)
                if (pa_operation* o = pa_stream_update_timing_info(player, nullptr, nullptr)) pa_operation_unref(o);
            pa_threaded_mainloop_unlock(loop);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    pa_stream* makeStream(const char* name, bool capturing, const std::string& sink) {
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, std::uint32_t(rate), 2};
        pa_stream* stream = pa_stream_new(context, name, &spec, nullptr);
        const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY);
        const auto blockBytes = std::uint32_t(256 * 2 * sizeof(float));
        if (capturing) {
            const pa_buffer_attr attributes{std::uint32_t(-1), std::uint32_t(-1), std::uint32_t(-1), std::uint32_t(-1),
                                            blockBytes / 4};
            pa_stream_set_read_callback(stream, &onRead, this);
            pa_stream_connect_record(stream, (sink + ".monitor").c_str(), &attributes, flags);
        } else {
            // The clicks' times come from timing info, not from a short
            // buffer: a roomy one never runs dry, so the times hold.
            const pa_buffer_attr attributes{std::uint32_t(-1), 20 * blockBytes, std::uint32_t(-1), std::uint32_t(-1),
                                            std::uint32_t(-1)};
            pa_stream_set_write_callback(stream, &onWrite, this);
            pa_stream_connect_playback(stream, sink.c_str(), &attributes, flags, nullptr, nullptr);
        }
        return stream;
    }

    bool run(const std::string& sink, Calibration& calibration, double seconds) {
        loop = pa_threaded_mainloop_new();
        context = pa_context_new(pa_threaded_mainloop_get_api(loop), "tobrin-sink-recorder");
        pa_context_set_state_callback(context, &onState, this);
        pa_threaded_mainloop_lock(loop);
        pa_threaded_mainloop_start(loop);
        pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
        while (pa_context_get_state(context) != PA_CONTEXT_READY) {
            if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
                pa_threaded_mainloop_unlock(loop);
                std::fprintf(stderr, "SinkRecorder: cannot connect to PulseAudio\n");
                return false;
            }
            pa_threaded_mainloop_wait(loop);
        }
        capture = makeStream("tobrin-sink-recorder", true, sink);
        pa_threaded_mainloop_unlock(loop);
        if (!waitForFrames(recording)) return false;

        pa_threaded_mainloop_lock(loop);
        player = makeStream("tobrin-calibration", false, sink);
        pa_threaded_mainloop_unlock(loop);
        std::thread updates([this] { updateTiming(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        playClicks(clicks);
        std::this_thread::sleep_for(std::chrono::milliseconds(700)); // timing snapshots after the last click
        calibrating = false;
        updates.join();
        pa_threaded_mainloop_lock(loop);
        pa_stream_disconnect(player);
        pa_stream_unref(player);
        pa_threaded_mainloop_unlock(loop);
        mapTimes();
        calibration = calibrate(recording, clicks);
        announce(calibration);
        std::thread recordingUpdates([this] { updateTiming(); });
        record(seconds);
        recordingUpdates.join();
        pa_threaded_mainloop_lock(loop);
        pa_stream_disconnect(capture);
        pa_stream_unref(capture);
        pa_context_disconnect(context);
        pa_threaded_mainloop_unlock(loop);
        pa_threaded_mainloop_stop(loop);
        mapTimes();
        return true;
    }
};

bool write(const char* path, const Recording& recording, const Calibration& calibration) {
    FILE* file = std::fopen(path, "wb");
    if (!file) return false;
    const std::int64_t blocks = std::int64_t(recording.blockCount.load());
    const std::int64_t frames = std::int64_t(recording.frameCount.load());
    std::fwrite("TBREC1", 1, 6, file);
    std::fwrite(&blocks, sizeof blocks, 1, file);
    for (std::int64_t b = 0; b < blocks; ++b) {
        const Recording::Block block{recording.blocks[std::size_t(b)].firstFrame,
                                     recording.blocks[std::size_t(b)].time - calibration.offset};
        std::fwrite(&block, sizeof block, 1, file);
    }
    std::fwrite(&frames, sizeof frames, 1, file);
    std::fwrite(recording.frames.data(), sizeof(float), std::size_t(frames), file);
    return std::fclose(file) == 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: SinkRecorder pipewire|pulse SINK OUT [SECONDS]\n");
        return 2;
    }
    const std::string server = argv[1];
    const double seconds = argc == 5 ? std::atof(argv[4]) : 300;
    signal(SIGTERM, [](int) { stopRequested = true; });
    signal(SIGINT, [](int) { stopRequested = true; });

    Recording recording(seconds + 10);
    Clicks clicks;
    Calibration calibration;
    bool recorded = false;
    if (server == "pipewire") {
        PipeWireRecorder recorder{recording, clicks};
        recorded = recorder.run(argv[2], calibration, seconds);
    } else if (server == "pulse") {
        PulseRecorder recorder{recording, clicks};
        recorded = recorder.run(argv[2], calibration, seconds);
    } else {
        std::fprintf(stderr, "SinkRecorder: unknown server %s\n", server.c_str());
        return 2;
    }
    if (!recorded) return 1;
    if (calibration.clicks < calibrationClicks / 2) {
        std::fprintf(stderr, "SinkRecorder: only %d of %d calibration clicks were found\n", calibration.clicks,
                     calibrationClicks);
        return 1;
    }
    return write(argv[3], recording, calibration) ? 0 : 1;
}
