#include "TobrinKit/Engine/Audio/PipeWire/PipeWireAudioBackend.h"
#include "TobrinKit/Engine/Audio/ServerSocket.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace tobrin {
namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
// How long start() waits for the server: the session manager links a new
// stream in tens of milliseconds, a suspended device wakes in a few hundred.
constexpr std::int64_t startTimeout = 2 * nanosecondsPerSecond;

// Shown by desktop mixers. "Game" is the role of interactive sounds that
// policies neither duck others for nor fold into the system-sounds slider.
constexpr const char* applicationName = "Tobrin";
constexpr const char* iconName = "input-keyboard";
constexpr const char* mediaRole = "Game";

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
}

void initialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

} // namespace

struct PipeWireAudioBackend::Connection {
    Connection(const Format& format_, const Callbacks& callbacks_) : format(format_), callbacks(callbacks_) {}
    ~Connection() { close(); }

    bool start(std::string& error);
    void pause();
    bool isRunning() const { return active.load() && !lost.load(); }

    bool connect(std::string& error);
    void close();
    // Waits on the loop (its lock held) until `done` holds or the time-out.
    template <typename Predicate>
    bool waitFor(Predicate done, std::int64_t timeout);
    void reportLost();

    static void onProcess(void* data);
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onCoreDone(void* data, std::uint32_t id, int seq);
    static void onCoreError(void* data, std::uint32_t id, int seq, int res, const char* message);
    static void onRegistryGlobal(void* data, std::uint32_t id, std::uint32_t permissions, const char* type,
                                 std::uint32_t version, const spa_dict* props);
    void noteTiming(std::uint32_t frames);

    const Format format;
    const Callbacks callbacks;

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener{};
    spa_hook streamListener{};
    pw_core_events coreEvents{};
    pw_stream_events streamEvents{};

    // Loop-thread state, read and written under the loop's lock.
    pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
    std::string streamError;
    int syncSeq = -1;
    bool synced = false;
    int sinks = 0;

    std::atomic<bool> lost{false};   // the connection or the stream failed
    bool established = false;        // streamed once (loop thread, under its lock)
    std::atomic<bool> active{false}; // render into the stream (else silence)
    // Set by the process callback while it runs, so pause() can wait for it.
    std::atomic<bool> processing{false};

    // Real-time thread only: the previous cycle, to notice missed ones, and
    // whether it rendered (a resumed stream starts counting afresh).
    std::int64_t lastCycle = 0;
    bool wasRendering = false;
    bool threadNamed = false;
};

template <typename Predicate>
bool PipeWireAudioBackend::Connection::waitFor(Predicate done, std::int64_t timeout) {
    timespec deadline{};
    pw_thread_loop_get_time(loop, &deadline, timeout);
    while (!done()) {
        if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0) return done();
    }
    return true;
}

void PipeWireAudioBackend::Connection::reportLost() {
    if (lost.exchange(true)) return;
    if (loop) pw_thread_loop_signal(loop, false);
    // A connection that never got going is a failed start, not a change.
    if (established && callbacks.configurationChanged) callbacks.configurationChanged(callbacks.context);
}

void PipeWireAudioBackend::Connection::onStateChanged(void* data, pw_stream_state old, pw_stream_state state,
                                                      const char* error) {
    auto* self = static_cast<Connection*>(data);
    self->state = state;
    if (error) self->streamError = error;
    const bool failed =
        state == PW_STREAM_STATE_ERROR || (state == PW_STREAM_STATE_UNCONNECTED && old != PW_STREAM_STATE_UNCONNECTED);
    if (failed)
        self->reportLost();
    else
        pw_thread_loop_signal(self->loop, false);
}

void PipeWireAudioBackend::Connection::onCoreDone(void* data, std::uint32_t id, int seq) {
    auto* self = static_cast<Connection*>(data);
    if (id == PW_ID_CORE && seq == self->syncSeq) {
        self->synced = true;
        pw_thread_loop_signal(self->loop, false);
    }
}

void PipeWireAudioBackend::Connection::onCoreError(void* data, std::uint32_t id, int, int res, const char* message) {
    auto* self = static_cast<Connection*>(data);
    if (id != PW_ID_CORE) return; // errors of the stream arrive as its state
    if (message) self->streamError = message;
    if (res == -EPIPE) self->reportLost(); // the server went away
}

void PipeWireAudioBackend::Connection::onRegistryGlobal(void* data, std::uint32_t, std::uint32_t, const char* type,
                                                        std::uint32_t, const spa_dict* props) {
    auto* self = static_cast<Connection*>(data);
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) != 0 || props == nullptr) return;
    const char* mediaClass = spa_dict_lookup(props, PW_KEY_MEDIA_CLASS);
    if (mediaClass && std::strcmp(mediaClass, "Audio/Sink") == 0) self->sinks += 1;
}

void PipeWireAudioBackend::Connection::onProcess(void* data) {
    auto* self = static_cast<Connection*>(data);
    const Callbacks& callbacks = self->callbacks;
    if (!self->threadNamed) {
        // PipeWire's data thread inherits the name of whichever thread
        // connected; give it the name of the render thread.
        pthread_setname_np(pthread_self(), "Tobrin.Audio");
        self->threadNamed = true;
    }
    if (callbacks.section) callbacks.section(callbacks.context, true);
    // Published before `active` is read: pause() clears `active`, then waits
    // for `processing` to fall, so after it returns render is never entered.
    self->processing.store(true);

    if (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream)) {
        spa_buffer* spa = buffer->buffer;
        float* channels[2] = {nullptr, nullptr};
        const std::uint32_t channelCount = std::min<std::uint32_t>(spa->n_datas, 2);
        std::uint32_t capacity = UINT32_MAX;
        for (std::uint32_t c = 0; c < channelCount; ++c) {
            channels[c] = static_cast<float*>(spa->datas[c].data);
            capacity = std::min<std::uint32_t>(capacity, spa->datas[c].maxsize / sizeof(float));
        }
        // The server says how much it needs this cycle (more or less than the
        // quantum when it resamples); the buffers hold the largest quantum.
        std::uint32_t frames = buffer->requested != 0 ? std::uint32_t(buffer->requested) : self->format.bufferFrames;
        frames = std::min(frames, capacity);
        const bool rendering = self->active.load();
        if (rendering != self->wasRendering) {
            self->wasRendering = rendering;
            self->lastCycle = 0;
        }
        if (channelCount > 0 && channels[0] != nullptr) {
            if (rendering)
                callbacks.render(callbacks.context, channels, channelCount, frames);
            else
                for (std::uint32_t c = 0; c < channelCount; ++c)
                    if (channels[c]) std::memset(channels[c], 0, frames * sizeof(float));
        } else {
            frames = 0;
        }
        for (std::uint32_t c = 0; c < channelCount; ++c) {
            spa->datas[c].chunk->offset = 0;
            spa->datas[c].chunk->stride = sizeof(float);
            spa->datas[c].chunk->size = frames * sizeof(float);
        }
        buffer->size = frames;
        pw_stream_queue_buffer(self->stream, buffer);
        if (rendering) self->noteTiming(frames);
    } else if (self->active.load() && callbacks.underrun) {
        callbacks.underrun(callbacks.context); // no buffer to fill this cycle
    }

    self->processing.store(false);
    if (callbacks.section) callbacks.section(callbacks.context, false);
}

// Counts a cycle as an underrun when the cycles before it went by without this
// stream, or when this block was finished only after the next cycle was due.
void PipeWireAudioBackend::Connection::noteTiming(std::uint32_t frames) {
    pw_time time{};
    if (pw_stream_get_time_n(stream, &time, sizeof time) != 0 || time.now <= 0 || frames == 0) return;
    const std::int64_t period = std::int64_t(double(frames) * double(nanosecondsPerSecond) / format.sampleRate);
    const bool skipped = lastCycle != 0 && time.now - lastCycle > period + period / 2;
    const bool late = monotonicNanoseconds() > time.now + period;
    lastCycle = time.now;
    if ((skipped || late) && callbacks.underrun) callbacks.underrun(callbacks.context);
}

bool PipeWireAudioBackend::Connection::connect(std::string& error) {
    initialiseOnce();
    loop = pw_thread_loop_new("Tobrin.PipeWire", nullptr);
    if (!loop || pw_thread_loop_start(loop) != 0) {
        error = "could not start the PipeWire thread";
        return false;
    }
    pw_thread_loop_lock(loop);
    // client-rt.conf loads the module that gives the data thread real-time
    // priority (directly or through RTKit).
    context = pw_context_new(pw_thread_loop_get_loop(loop),
                             pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", PW_KEY_APP_NAME, applicationName,
                                               PW_KEY_APP_ICON_NAME, iconName, nullptr),
                             0);
    if (context) core = pw_context_connect(context, nullptr, 0);
    if (!core) {
        error = std::string("cannot connect to the PipeWire server: ") + std::strerror(errno);
        pw_thread_loop_unlock(loop);
        return false;
    }
    coreEvents.version = PW_VERSION_CORE_EVENTS;
    coreEvents.done = &onCoreDone;
    coreEvents.error = &onCoreError;
    pw_core_add_listener(core, &coreListener, &coreEvents, this);

    // A PipeWire that does not manage the sound card (PulseAudio does, or no
    // session manager runs) accepts streams but never plays them: ask for its
    // sinks first.
    pw_registry* registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
    spa_hook registryListener{};
    pw_registry_events registryEvents{};
    registryEvents.version = PW_VERSION_REGISTRY_EVENTS;
    registryEvents.global = &onRegistryGlobal;
    pw_registry_add_listener(registry, &registryListener, &registryEvents, this);
    syncSeq = pw_core_sync(core, PW_ID_CORE, 0);
    const bool listed = waitFor([this] { return synced || lost.load(); }, startTimeout) && synced;
    spa_hook_remove(&registryListener);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
    if (!listed || sinks == 0) {
        error = !listed ? "the PipeWire server did not answer"
                        : "PipeWire has no audio output (no sink: is its session manager running?)";
        pw_thread_loop_unlock(loop);
        return false;
    }

    const std::string latency = std::to_string(format.bufferFrames) + "/" + std::to_string(int(format.sampleRate));
    pw_properties* props =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE, mediaRole,
                          PW_KEY_MEDIA_NAME, "Key sounds", PW_KEY_MEDIA_ICON_NAME, iconName, PW_KEY_APP_NAME,
                          applicationName, PW_KEY_APP_ICON_NAME, iconName, PW_KEY_NODE_NAME, "tobrin",
                          PW_KEY_NODE_DESCRIPTION, applicationName, PW_KEY_NODE_LATENCY, latency.c_str(), nullptr);
    stream = pw_stream_new(core, applicationName, props);
    if (!stream) {
        error = std::string("could not create a PipeWire stream: ") + std::strerror(errno);
        pw_thread_loop_unlock(loop);
        return false;
    }
    streamEvents.version = PW_VERSION_STREAM_EVENTS;
    streamEvents.state_changed = &onStateChanged;
    streamEvents.process = &onProcess;
    pw_stream_add_listener(stream, &streamListener, &streamEvents, this);

    std::uint8_t podBuffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(podBuffer, sizeof podBuffer);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32P;
    info.rate = std::uint32_t(format.sampleRate);
    info.channels = format.channels >= 2 ? 2 : 1;
    info.position[0] = info.channels == 2 ? SPA_AUDIO_CHANNEL_FL : SPA_AUDIO_CHANNEL_MONO;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    active.store(true);
    const int connected = pw_stream_connect(
        stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS), params,
        1);
    pw_thread_loop_unlock(loop);
    if (connected < 0) {
        active.store(false);
        error = std::string("could not connect the PipeWire stream: ") + std::strerror(-connected);
        return false;
    }
    return true;
}

bool PipeWireAudioBackend::Connection::start(std::string& error) {
    if (lost.load()) {
        error = "the connection to the PipeWire server was lost";
        return false;
    }
    if (!loop) {
        if (!connect(error)) {
            close(); // a half-made connection is not kept
            return false;
        }
    } else {
        active.store(true);
        pw_thread_loop_lock(loop);
        pw_stream_set_active(stream, true);
        pw_thread_loop_unlock(loop);
    }
    pw_thread_loop_lock(loop);
    const bool streaming =
        waitFor([this] { return state == PW_STREAM_STATE_STREAMING || lost.load(); }, startTimeout) && !lost.load();
    if (streaming) established = true;
    if (!streaming) {
        error = lost.load() ? "the PipeWire server closed the stream" + (streamError.empty() ? "" : ": " + streamError)
                            : "PipeWire did not link the stream to an output in time";
    }
    pw_thread_loop_unlock(loop);
    if (!streaming) pause();
    return streaming;
}

void PipeWireAudioBackend::Connection::pause() {
    active.store(false);
    if (loop && stream) {
        pw_thread_loop_lock(loop);
        pw_stream_set_active(stream, false);
        pw_thread_loop_unlock(loop);
    }
    // A process callback that read `active` before it fell may still be
    // rendering; it is short (one block).
    while (processing.load()) std::this_thread::yield();
}

void PipeWireAudioBackend::Connection::close() {
    if (!loop) return;
    active.store(false);
    pw_thread_loop_lock(loop);
    if (stream) {
        spa_hook_remove(&streamListener);
        pw_stream_destroy(stream); // waits for the data thread to let go
        stream = nullptr;
    }
    if (core) {
        spa_hook_remove(&coreListener);
        pw_core_disconnect(core);
        core = nullptr;
    }
    pw_thread_loop_unlock(loop);
    pw_thread_loop_stop(loop);
    if (context) pw_context_destroy(context);
    context = nullptr;
    pw_thread_loop_destroy(loop);
    loop = nullptr;
}

PipeWireAudioBackend::PipeWireAudioBackend(const Format& format, const Callbacks& callbacks)
    : connection_(std::make_unique<Connection>(format, callbacks)) {}

PipeWireAudioBackend::~PipeWireAudioBackend() = default;

bool PipeWireAudioBackend::start(std::string& error) { return connection_->start(error); }
void PipeWireAudioBackend::pause() { connection_->pause(); }
bool PipeWireAudioBackend::isRunning() const { return connection_->isRunning(); }

std::filesystem::path PipeWireAudioBackend::socketPath() {
    const char* remote = std::getenv("PIPEWIRE_REMOTE");
    const std::string name = remote && *remote ? remote : "pipewire-0";
    if (name.front() == '/') return name;
    const char* runtime = std::getenv("PIPEWIRE_RUNTIME_DIR");
    if (!runtime || !*runtime) runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) return {};
    return std::filesystem::path(runtime) / name;
}

AudioBackendFactory PipeWireAudioBackend::factory() {
    return AudioBackendFactory{name, [] { return acceptsConnections(socketPath()); },
                               [](const Format& format, const Callbacks& callbacks) -> std::unique_ptr<AudioBackend> {
                                   return std::make_unique<PipeWireAudioBackend>(format, callbacks);
                               }};
}

} // namespace tobrin
