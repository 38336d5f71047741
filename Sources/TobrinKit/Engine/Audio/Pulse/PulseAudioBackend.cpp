#include "TobrinKit/Engine/Audio/Pulse/PulseAudioBackend.h"
#include "TobrinKit/Engine/Audio/ServerSocket.h"

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace tobrin {
namespace {

constexpr pa_usec_t startTimeout = 2 * PA_USEC_PER_SEC;
// Frames rendered per step of a write request; the buffers below hold this
// many, and a larger request is served in several steps.
constexpr std::uint32_t blockCapacity = 2048;

constexpr const char* applicationName = "Tobrin";
constexpr const char* iconName = "input-keyboard";
// See the PipeWire backend: the role policies leave alone.
constexpr const char* mediaRole = "game";

} // namespace

struct PulseAudioBackend::Connection {
    Connection(const Format& format_, const Callbacks& callbacks_)
        : format(format_), callbacks(callbacks_), channelCount(format_.channels >= 2 ? 2 : 1), left(blockCapacity),
          right(blockCapacity) {}
    ~Connection() { close(); }

    bool start(std::string& error);
    void pause();
    bool isRunning() const { return active.load() && !lost.load(); }

    bool connect(std::string& error);
    void close();
    // Waits on the loop (its lock held) until `done` holds or the time-out.
    template <typename Predicate>
    bool waitFor(Predicate done, pa_usec_t timeout);
    void reportChange(bool connectionLost);
    std::string contextError() const { return context ? pa_strerror(pa_context_errno(context)) : "no context"; }

    static void onContextState(pa_context* context, void* data);
    static void onStreamState(pa_stream* stream, void* data);
    static void onWrite(pa_stream* stream, std::size_t bytes, void* data);
    static void onUnderflow(pa_stream* stream, void* data);
    static void onSubscription(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index, void* data);
    static void onServerInfo(pa_context* context, const pa_server_info* info, void* data);

    const Format format;
    const Callbacks callbacks;
    const std::uint32_t channelCount;

    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;

    // Allocated here so that the write callback never allocates.
    std::vector<float> left, right;

    std::atomic<bool> lost{false};
    std::atomic<bool> active{false};
    bool changeReported = false; // loop thread
    bool established = false;    // the stream became ready (under the loop's lock)
};

template <typename Predicate>
bool PulseAudioBackend::Connection::waitFor(Predicate done, pa_usec_t timeout) {
    bool timedOut = false;
    struct Waiter {
        pa_threaded_mainloop* loop;
        bool* timedOut;
    } waiter{loop, &timedOut};
    pa_time_event* timer = pa_context_rttime_new(
        context, pa_rtclock_now() + timeout,
        [](pa_mainloop_api*, pa_time_event*, const timeval*, void* data) {
            auto* w = static_cast<Waiter*>(data);
            *w->timedOut = true;
            pa_threaded_mainloop_signal(w->loop, 0);
        },
        &waiter);
    while (!done() && !timedOut) pa_threaded_mainloop_wait(loop);
    if (timer) pa_threaded_mainloop_get_api(loop)->time_free(timer);
    return done();
}

void PulseAudioBackend::Connection::reportChange(bool connectionLost) {
    if (connectionLost) lost.store(true);
    pa_threaded_mainloop_signal(loop, 0);
    // A connection that never got going is a failed start, not a change.
    if (changeReported || !established) return;
    changeReported = true;
    if (callbacks.configurationChanged) callbacks.configurationChanged(callbacks.context);
}

void PulseAudioBackend::Connection::onContextState(pa_context* context, void* data) {
    auto* self = static_cast<Connection*>(data);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED)
        self->reportChange(true);
    else
        pa_threaded_mainloop_signal(self->loop, 0);
}

void PulseAudioBackend::Connection::onStreamState(pa_stream* stream, void* data) {
    auto* self = static_cast<Connection*>(data);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED)
        self->reportChange(true);
    else
        pa_threaded_mainloop_signal(self->loop, 0);
}

void PulseAudioBackend::Connection::onWrite(pa_stream* stream, std::size_t bytes, void* data) {
    auto* self = static_cast<Connection*>(data);
    const Callbacks& callbacks = self->callbacks;
    const std::size_t frameBytes = self->channelCount * sizeof(float);
    std::size_t wanted = bytes / frameBytes;
    const bool rendering = self->active.load();
    while (wanted > 0) {
        void* target = nullptr;
        std::size_t size = std::min<std::size_t>(wanted, blockCapacity) * frameBytes;
        if (pa_stream_begin_write(stream, &target, &size) < 0 || target == nullptr) break;
        const auto frames = std::uint32_t(std::min<std::size_t>(size / frameBytes, blockCapacity));
        if (frames == 0) {
            pa_stream_cancel_write(stream);
            break;
        }
        // The section is this backend's own work. libpulse's transfer around
        // it is not real-time code: it may allocate a queue entry when its
        // free list runs dry, on this (ordinary-priority) main loop thread.
        if (callbacks.section) callbacks.section(callbacks.context, true);
        auto* out = static_cast<float*>(target);
        if (rendering) {
            float* channels[2] = {self->left.data(), self->right.data()};
            callbacks.render(callbacks.context, channels, self->channelCount, frames);
            if (self->channelCount == 2) {
                for (std::uint32_t f = 0; f < frames; ++f) {
                    out[2 * f] = self->left[f];
                    out[2 * f + 1] = self->right[f];
                }
            } else {
                std::memcpy(out, self->left.data(), frames * sizeof(float));
            }
        } else {
            std::memset(out, 0, frames * frameBytes);
        }
        if (callbacks.section) callbacks.section(callbacks.context, false);
        pa_stream_write(stream, out, frames * frameBytes, nullptr, 0, PA_SEEK_RELATIVE);
        wanted -= frames;
    }
}

void PulseAudioBackend::Connection::onUnderflow(pa_stream*, void* data) {
    auto* self = static_cast<Connection*>(data);
    if (self->active.load() && self->callbacks.underrun) self->callbacks.underrun(self->callbacks.context);
}

// The server usually moves streams to a new default sink itself; one that
// does not leaves the stream where it was, and the owner reconnects.
void PulseAudioBackend::Connection::onSubscription(pa_context* context, pa_subscription_event_type_t type,
                                                   std::uint32_t, void* data) {
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER) return;
    if (pa_operation* operation = pa_context_get_server_info(context, &onServerInfo, data))
        pa_operation_unref(operation);
}

void PulseAudioBackend::Connection::onServerInfo(pa_context*, const pa_server_info* info, void* data) {
    auto* self = static_cast<Connection*>(data);
    if (!info || !info->default_sink_name || !self->stream) return;
    if (pa_stream_get_state(self->stream) != PA_STREAM_READY) return;
    const char* device = pa_stream_get_device_name(self->stream);
    if (device && std::strcmp(device, info->default_sink_name) != 0) self->reportChange(false);
}

bool PulseAudioBackend::Connection::connect(std::string& error) {
    loop = pa_threaded_mainloop_new();
    if (!loop) {
        error = "could not create the PulseAudio main loop";
        return false;
    }
    pa_threaded_mainloop_set_name(loop, "Tobrin.Pulse");
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, applicationName);
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ICON_NAME, iconName);
    context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop), applicationName, properties);
    pa_proplist_free(properties);
    if (!context) {
        error = "could not create a PulseAudio context";
        return false;
    }
    pa_context_set_state_callback(context, &onContextState, this);
    pa_threaded_mainloop_lock(loop);
    if (pa_threaded_mainloop_start(loop) < 0) {
        pa_threaded_mainloop_unlock(loop);
        error = "could not start the PulseAudio thread";
        return false;
    }
    // Never spawn a server: when none runs, the next backend is tried.
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        error = "cannot connect to the PulseAudio server: " + contextError();
        pa_threaded_mainloop_unlock(loop);
        return false;
    }
    const bool ready =
        waitFor([this] { return pa_context_get_state(context) == PA_CONTEXT_READY || lost.load(); }, startTimeout) &&
        !lost.load();
    if (!ready) {
        error = "cannot connect to the PulseAudio server: " + contextError();
        pa_threaded_mainloop_unlock(loop);
        return false;
    }

    const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, std::uint32_t(format.sampleRate), std::uint8_t(channelCount)};
    pa_channel_map map{};
    pa_channel_map_init_auto(&map, channelCount, PA_CHANNEL_MAP_DEFAULT);
    properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_MEDIA_ROLE, mediaRole);
    pa_proplist_sets(properties, PA_PROP_MEDIA_ICON_NAME, iconName);
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ICON_NAME, iconName);
    stream = pa_stream_new_with_proplist(context, "Key sounds", &spec, &map, properties);
    pa_proplist_free(properties);
    if (!stream) {
        error = "could not create a PulseAudio stream: " + contextError();
        pa_threaded_mainloop_unlock(loop);
        return false;
    }
    pa_stream_set_state_callback(stream, &onStreamState, this);
    pa_stream_set_write_callback(stream, &onWrite, this);
    pa_stream_set_underflow_callback(stream, &onUnderflow, this);

    // The target buffer is the requested device buffer; the server derives
    // the sink latency from it (without ADJUST_LATENCY pipewire-pulse gives a
    // stream that asks for nothing a two-second target).
    const auto target = std::uint32_t(format.bufferFrames * channelCount * sizeof(float));
    const pa_buffer_attr attributes{std::uint32_t(-1), target, std::uint32_t(-1), std::uint32_t(-1), std::uint32_t(-1)};
    active.store(true);
    if (pa_stream_connect_playback(stream, nullptr, &attributes, PA_STREAM_ADJUST_LATENCY, nullptr, nullptr) < 0) {
        active.store(false);
        error = "could not connect the PulseAudio stream: " + contextError();
        pa_threaded_mainloop_unlock(loop);
        return false;
    }
    const bool streaming =
        waitFor([this] { return pa_stream_get_state(stream) == PA_STREAM_READY || lost.load(); }, startTimeout) &&
        !lost.load();
    if (!streaming) {
        active.store(false);
        error = "the PulseAudio server did not accept the stream: " + contextError();
        pa_threaded_mainloop_unlock(loop);
        return false;
    }
    established = true;
    pa_context_set_subscribe_callback(context, &onSubscription, this);
    if (pa_operation* operation = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
        pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(loop);
    return true;
}

bool PulseAudioBackend::Connection::start(std::string& error) {
    if (lost.load()) {
        error = "the connection to the PulseAudio server was lost";
        return false;
    }
    if (!loop) {
        if (connect(error)) return true;
        close(); // a half-made connection is not kept
        return false;
    }
    pa_threaded_mainloop_lock(loop);
    active.store(true);
    if (pa_operation* operation = pa_stream_cork(stream, 0, nullptr, nullptr)) pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(loop);
    return true;
}

void PulseAudioBackend::Connection::pause() {
    if (!loop) return;
    // The write callback runs under the loop's lock, so once it is taken here
    // no render is under way, and none follows.
    pa_threaded_mainloop_lock(loop);
    active.store(false);
    if (stream && pa_stream_get_state(stream) == PA_STREAM_READY)
        if (pa_operation* operation = pa_stream_cork(stream, 1, nullptr, nullptr)) pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(loop);
}

void PulseAudioBackend::Connection::close() {
    if (!loop) return;
    pa_threaded_mainloop_lock(loop);
    active.store(false);
    if (stream) {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_set_underflow_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
        stream = nullptr;
    }
    if (context) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
    }
    pa_threaded_mainloop_unlock(loop);
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
    loop = nullptr;
}

PulseAudioBackend::PulseAudioBackend(const Format& format, const Callbacks& callbacks)
    : connection_(std::make_unique<Connection>(format, callbacks)) {}

PulseAudioBackend::~PulseAudioBackend() = default;

bool PulseAudioBackend::start(std::string& error) { return connection_->start(error); }
void PulseAudioBackend::pause() { connection_->pause(); }
bool PulseAudioBackend::isRunning() const { return connection_->isRunning(); }

std::filesystem::path PulseAudioBackend::socketPath() {
    if (const char* server = std::getenv("PULSE_SERVER"); server && *server) {
        const std::string_view named(server);
        if (named.starts_with("unix:")) return std::string(named.substr(5));
        if (named.front() == '/') return std::string(named);
        return {};
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) return {};
    return std::filesystem::path(runtime) / "pulse" / "native";
}

AudioBackendFactory PulseAudioBackend::factory() {
    return AudioBackendFactory{name,
                               [] {
                                   const char* server = std::getenv("PULSE_SERVER");
                                   const auto path = socketPath();
                                   // A remote or listed server is left to the connection attempt.
                                   if (server && *server && path.empty()) return true;
                                   return acceptsConnections(path);
                               },
                               [](const Format& format, const Callbacks& callbacks) -> std::unique_ptr<AudioBackend> {
                                   return std::make_unique<PulseAudioBackend>(format, callbacks);
                               }};
}

} // namespace tobrin
