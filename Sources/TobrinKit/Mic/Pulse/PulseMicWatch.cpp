// Watching the microphone through libpulse's introspection and subscription.
#include "TobrinKit/Mic/Pulse/PulseMicWatch.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tobrin {
namespace {

// Everything one reading of the server gathers; the replies of one reading
// arrive in the order asked, on one connection.
struct ServerState {
    struct Source {
        std::string name, description;
        pa_source_state_t state = PA_SOURCE_INVALID_STATE;
        std::uint32_t monitorOfSink = PA_INVALID_INDEX;
        std::uint32_t card = PA_INVALID_INDEX;
    };
    struct Capture {
        std::uint32_t source = PA_INVALID_INDEX;
        std::uint32_t client = PA_INVALID_INDEX;
        bool corked = false;
        std::int32_t process = 0; // from the stream's own properties
    };

    std::string defaultSource;
    std::map<std::uint32_t, Source> sources;
    std::set<std::uint32_t> cardsWithSinks;
    std::vector<Capture> captures;
    std::map<std::uint32_t, std::int32_t> clientProcesses;
    int pending = 5;
    bool failed = false;
};

std::int32_t processOf(const pa_proplist* properties) {
    const char* text = properties ? pa_proplist_gets(properties, PA_PROP_APPLICATION_PROCESS_ID) : nullptr;
    if (!text) return 0;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return (end != text && *end == '\0' && value > 0 && value <= 0x7fffffff) ? std::int32_t(value) : 0;
}

MicActivity activityOf(const ServerState& server, std::int32_t ownProcess) {
    auto processOfCapture = [&](const ServerState::Capture& capture) {
        const auto client = server.clientProcesses.find(capture.client);
        return client != server.clientProcesses.end() && client->second != 0 ? client->second : capture.process;
    };

    MicActivity activity;
    for (const auto& [index, source] : server.sources) {
        if (source.name != server.defaultSource) continue;
        activity.inputDeviceName = source.description.empty() ? source.name : source.description;
        activity.inputDeviceHasOutput = source.monitorOfSink != PA_INVALID_INDEX ||
                                        (source.card != PA_INVALID_INDEX && server.cardsWithSinks.count(source.card));
        // The server cannot tell whose capture runs a source; its streams can.
        // Running only for this process's own streams is not "somewhere".
        bool othersCapture = false, ownCaptures = false;
        for (const auto& capture : server.captures) {
            if (capture.source != index || capture.corked) continue;
            (processOfCapture(capture) == ownProcess ? ownCaptures : othersCapture) = true;
        }
        activity.inputRunningSomewhere = source.state == PA_SOURCE_RUNNING && (othersCapture || !ownCaptures);
        break;
    }

    std::vector<std::int32_t> processes;
    for (const auto& capture : server.captures) {
        if (capture.corked) continue;
        const auto source = server.sources.find(capture.source);
        // A recording of what plays (a monitor) is not the microphone.
        if (source == server.sources.end() || source->second.monitorOfSink != PA_INVALID_INDEX) continue;
        const std::int32_t process = processOfCapture(capture);
        if (process != 0 && process != ownProcess) processes.push_back(process);
    }
    std::sort(processes.begin(), processes.end());
    processes.erase(std::unique(processes.begin(), processes.end()), processes.end());
    activity.recordingProcesses = std::move(processes);
    return activity;
}

} // namespace

// One connection to the server and its main loop thread. Everything but the
// constructor, open() and close() runs on that thread, under its lock.
struct PulseMicWatch::Loop {
    Loop(Options options_, Update update_, bool reportEveryFailure_)
        : options(options_), update(std::move(update_)), reportEveryFailure(reportEveryFailure_),
          nextRetry(options_.firstRetry) {}
    ~Loop() { close(); }

    void open() {
        mainloop = pa_threaded_mainloop_new();
        pa_threaded_mainloop_set_name(mainloop, "Tobrin.Mic");
        pa_threaded_mainloop_lock(mainloop);
        connect();
        pa_threaded_mainloop_unlock(mainloop);
        pa_threaded_mainloop_start(mainloop);
    }

    void close() {
        if (!mainloop) return;
        pa_threaded_mainloop_lock(mainloop);
        closing = true;
        if (retry) pa_threaded_mainloop_get_api(mainloop)->time_free(retry);
        retry = nullptr;
        disconnect();
        pa_threaded_mainloop_unlock(mainloop);
        pa_threaded_mainloop_stop(mainloop);
        pa_threaded_mainloop_free(mainloop);
        mainloop = nullptr;
    }

    void resync() {
        pa_threaded_mainloop_lock(mainloop);
        if (context && pa_context_get_state(context) == PA_CONTEXT_READY) read();
        pa_threaded_mainloop_unlock(mainloop);
    }

    void connect() {
        pa_proplist* properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Tobrin");
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, clientId);
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ICON_NAME, "input-keyboard");
        context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop), "Tobrin", properties);
        pa_proplist_free(properties);
        if (!context) return lost();
        pa_context_set_state_callback(context, &Loop::onContextState, this);
        pa_context_set_subscribe_callback(context, &Loop::onEvent, this);
        // A refusal may already have gone through the state callback.
        if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 && context) lost();
    }

    void disconnect() {
        if (!context) return;
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        // Replies still due are cancelled with the connection and never arrive.
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
        reading.reset();
        readAgain = false;
    }

    // The connection failed or ended: the state is unknown until the next one.
    void lost() {
        disconnect();
        if (known || reportEveryFailure) update(std::nullopt);
        known = false;
        if (closing || reportEveryFailure || retry) return;
        timeval due{};
        pa_gettimeofday(&due);
        pa_timeval_add(&due, pa_usec_t(nextRetry.count()) * PA_USEC_PER_MSEC);
        nextRetry = std::min(nextRetry * 2, options.longestRetry);
        retry = pa_threaded_mainloop_get_api(mainloop)->time_new(
            pa_threaded_mainloop_get_api(mainloop), &due,
            [](pa_mainloop_api* api, pa_time_event* event, const timeval*, void* data) {
                auto* self = static_cast<Loop*>(data);
                api->time_free(event);
                self->retry = nullptr;
                self->connect();
            },
            this);
    }

    static void onContextState(pa_context* context, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (context != self->context) return; // one already let go
        switch (pa_context_get_state(context)) {
        case PA_CONTEXT_READY: {
            self->nextRetry = self->options.firstRetry;
            const auto mask = pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE |
                                                     PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                                     PA_SUBSCRIPTION_MASK_CLIENT | PA_SUBSCRIPTION_MASK_CARD);
            pa_operation_unref(pa_context_subscribe(context, mask, nullptr, nullptr));
            self->read();
            break;
        }
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED: self->lost(); break;
        default: break;
        }
    }

    static void onEvent(pa_context*, pa_subscription_event_type_t, std::uint32_t, void* data) {
        static_cast<Loop*>(data)->read();
    }

    // Asks for the whole state; a change while a reading is under way asks
    // again once it is in, so the last update always follows the last change.
    void read() {
        if (!context) return;
        if (reading) {
            readAgain = true;
            return;
        }
        reading = std::make_unique<ServerState>();
        const auto ask = [this](pa_operation* operation) {
            if (operation)
                pa_operation_unref(operation);
            else
                settle(true);
        };
        ask(pa_context_get_server_info(context, &Loop::onServer, this));
        ask(pa_context_get_source_info_list(context, &Loop::onSource, this));
        ask(pa_context_get_sink_info_list(context, &Loop::onSink, this));
        ask(pa_context_get_source_output_info_list(context, &Loop::onCapture, this));
        ask(pa_context_get_client_info_list(context, &Loop::onClient, this));
    }

    // One of the five answers is complete.
    void settle(bool failed) {
        reading->failed |= failed;
        if (--reading->pending > 0) return;
        const auto state = std::move(reading);
        if (state->failed) {
            // A connection going down fails its replies; lost() follows.
            readAgain = false;
            return;
        }
        known = true;
        update(activityOf(*state, ownProcess));
        if (std::exchange(readAgain, false)) read();
    }

    static void onServer(pa_context*, const pa_server_info* info, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (info && info->default_source_name) self->reading->defaultSource = info->default_source_name;
        self->settle(info == nullptr);
    }

    static void onSource(pa_context*, const pa_source_info* info, int last, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (last) return self->settle(last < 0);
        auto& source = self->reading->sources[info->index];
        source.name = info->name ? info->name : "";
        source.description = info->description ? info->description : "";
        source.state = info->state;
        source.monitorOfSink = info->monitor_of_sink;
        source.card = info->card;
    }

    static void onSink(pa_context*, const pa_sink_info* info, int last, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (last) return self->settle(last < 0);
        if (info->card != PA_INVALID_INDEX) self->reading->cardsWithSinks.insert(info->card);
    }

    static void onCapture(pa_context*, const pa_source_output_info* info, int last, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (last) return self->settle(last < 0);
        self->reading->captures.push_back({info->source, info->client, info->corked != 0, processOf(info->proplist)});
    }

    static void onClient(pa_context*, const pa_client_info* info, int last, void* data) {
        auto* self = static_cast<Loop*>(data);
        if (last) return self->settle(last < 0);
        self->reading->clientProcesses[info->index] = processOf(info->proplist);
    }

    const Options options;
    const Update update;
    // A one-off reading wants to hear at once that no server answers.
    const bool reportEveryFailure;
    const std::int32_t ownProcess = std::int32_t(::getpid());

    pa_threaded_mainloop* mainloop = nullptr;
    pa_context* context = nullptr;
    pa_time_event* retry = nullptr;
    std::chrono::milliseconds nextRetry;
    std::unique_ptr<ServerState> reading;
    bool readAgain = false;
    bool known = false;
    bool closing = false;
};

PulseMicWatch::PulseMicWatch() : PulseMicWatch(Options()) {}
PulseMicWatch::PulseMicWatch(Options options) : options_(options) {}
PulseMicWatch::~PulseMicWatch() { stop(); }

void PulseMicWatch::start(Update update) {
    if (loop_) return;
    loop_ = std::make_unique<Loop>(options_, std::move(update), false);
    loop_->open();
}

void PulseMicWatch::stop() { loop_.reset(); }

void PulseMicWatch::resync() {
    if (loop_) loop_->resync();
}

std::optional<MicActivity> PulseMicWatch::readOnce(std::chrono::milliseconds timeout) {
    struct Answer {
        std::mutex lock;
        std::condition_variable arrived;
        bool done = false;
        std::optional<MicActivity> activity;
    } answer;
    {
        Loop loop(
            options_,
            [&answer](std::optional<MicActivity> activity) {
                std::lock_guard guard(answer.lock);
                if (answer.done) return;
                answer.done = true;
                answer.activity = std::move(activity);
                answer.arrived.notify_all();
            },
            true);
        loop.open();
        std::unique_lock guard(answer.lock);
        answer.arrived.wait_for(guard, timeout, [&] { return answer.done; });
        guard.unlock();
        // ~Loop stops the thread; no answer comes after.
    }
    return answer.activity;
}

std::unique_ptr<MicWatch> makePulseMicWatch() { return std::make_unique<PulseMicWatch>(); }

} // namespace tobrin
