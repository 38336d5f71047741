#include "CLI.h"

#include "Panel/Snapshot.h"

#include "TobrinKit/Engine/Audio/AudioOutput.h"
#include "TobrinKit/Engine/Conductor.h"
#include "TobrinKit/Engine/Core/MachTime.h"
#include "TobrinKit/Engine/Core/PrintableText.h"
#include "TobrinKit/Engine/EngineSettings.h"
#include "TobrinKit/Force/ForceSensor.h"
#include "TobrinKit/Force/MotionSource.h"
#include "TobrinKit/Force/SensorRecording.h"
#include "TobrinKit/Input/KeyLayout.h"
#include "TobrinKit/Input/KeyMonitor.h"
#include "TobrinKit/Mic/MicMonitor.h"
#include "TobrinKit/Mic/Pulse/PulseMicWatch.h"
#include "TobrinKit/Packs/Import/CommunityPacks.h"
#include "TobrinKit/Packs/Loading/LoadedPack.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ctime>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

namespace tobrin::app::CLI {

const char* const usage = "Tobrin, velocity-sensitive keyboard sounds.\n"
                          "  (no arguments)   run the tray app\n"
                          "  --probe [secs]   measure how your keystrokes register on the motion sensor\n"
                          "  --selftest       check key capture, audio engine and sensor (muted)\n"
                          "  --micwatch [secs] show when apps take and release the microphone (\"Quiet during calls\")";

namespace {

using namespace std::chrono_literals;

void sleepFor(std::chrono::duration<double> duration) {
    std::this_thread::sleep_for(std::chrono::duration_cast<std::chrono::nanoseconds>(duration));
}

// Passes every report on and writes it into a replay file beside the probe's
// results, so a session can be replayed later (TOBRIN_SENSOR_REPLAY).
class RecordingMotionSource final : public MotionSource {
public:
    RecordingMotionSource(std::unique_ptr<MotionSource> inner, std::unique_ptr<SensorRecordingWriter> writer)
        : inner_(std::move(inner)), writer_(std::move(writer)) {}
    bool start(ReportHandler handler) override {
        return inner_->start([this, handler](std::span<const std::uint8_t> report, std::uint64_t timestamp) {
            if (writer_ && report.size() <= SensorRecording::maximumReportLength) writer_->append(report, timestamp);
            handler(report, timestamp);
        });
    }
    void stop() override { inner_->stop(); }
    std::string lastError() const override { return inner_->lastError(); }

private:
    std::unique_ptr<MotionSource> inner_;
    std::unique_ptr<SensorRecordingWriter> writer_;
};

struct Hit {
    std::string group;
    double offset = 0; // ms, peak time − key time
    float peak = 0;    // g
    std::vector<std::pair<double, float>> trace;
};

std::string timeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

void check(bool passed, const std::string& text, int& failures) {
    std::printf("%s  %s\n", passed ? "PASS" : "FAIL", text.c_str());
    std::fflush(stdout);
    if (!passed) ++failures;
}

} // namespace

double parseSeconds(const std::vector<std::string>& arguments, double fallback) {
    if (arguments.size() < 2) return fallback;
    const std::string& text = arguments[1];
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) || value < 0) return fallback;
    return value;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto last = std::ptrdiff_t(values.size()) - 1;
    const auto index = std::min(std::max(std::ptrdiff_t(std::trunc(p * double(last))), std::ptrdiff_t(0)), last);
    return values[std::size_t(index)];
}

std::optional<int> run(const std::vector<std::string>& arguments) {
    if (arguments.empty()) return std::nullopt;
    const std::string& command = arguments[0];
    if (command == "--probe") return probe(parseSeconds(arguments, 20));
    if (command == "--selftest") return selfTest();
    if (command == "--micwatch") return micWatch(parseSeconds(arguments, 60));
    if (command == "--snapshot") return snapshot({arguments.begin() + 1, arguments.end()});
    if (command == "--version") {
#ifdef TOBRIN_VERSION
        std::printf("%s\n", TOBRIN_VERSION);
#else
        std::printf("dev\n");
#endif
        return 0;
    }
    if (command == "--help" || command == "-h") {
        std::printf("%s\n", usage);
        return 0;
    }
    return std::nullopt;
}

int probe(double seconds) {
    auto source = findMotionSource();
    if (!source) {
        std::printf("This computer has no motion sensor, so force sensing isn't available.\n");
        return 1;
    }
    const std::string stamp = timeStamp();
    const std::string base = "probe-" + stamp;
    std::unique_ptr<SensorRecordingWriter> writer;
    try {
        writer = std::make_unique<SensorRecordingWriter>(base + "-sensor.replay");
    } catch (const SensorRecordingError& error) {
        std::printf("Couldn't record the sensor stream: %s\n", printable(error.what()).c_str());
    }
    ForceSensor sensor(std::make_unique<RecordingMotionSource>(std::move(source), std::move(writer)));
    if (!sensor.start()) {
        std::printf("Couldn't open the motion sensor.\n");
        return 1;
    }

    std::mutex lock;
    std::vector<std::pair<std::uint16_t, std::uint64_t>> downs;
    KeyMonitor monitor([&](const KeyEvent& event) {
        if (event.action != KeyAction::down) return;
        std::lock_guard guard(lock);
        downs.emplace_back(event.code, event.time);
    });
    if (!monitor.start()) {
        std::printf("Needs keyboard access: add yourself to the input group (sudo usermod -aG input $USER), log in "
                    "again, then rerun.\n");
        sensor.stop();
        return 1;
    }
    const int whole = int(seconds);
    std::printf("Tobrin force probe, %d seconds.\nSwitch to any text field (an editor, a browser...) and type: some "
                "normal typing,\na few feather-light taps, and a few really hard hits.\n",
                whole);
    std::fflush(stdout);
    const auto started = std::chrono::steady_clock::now();
    const auto deadline =
        started + std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
    const std::uint64_t reportsAtStart = sensor.reportsReceived();
    while (std::chrono::steady_clock::now() < deadline) {
        sleepFor(0.1s);
        const auto left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
        std::size_t count = 0;
        {
            std::lock_guard guard(lock);
            count = downs.size();
        }
        std::printf("\r%3ds left, %zu keys so far ", int(std::ceil(std::max(left, 0.0))), count);
        std::fflush(stdout);
    }
    std::printf("\n");
    sleepFor(0.12s);
    monitor.stop();
    const float noise = sensor.noiseFloor();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const double rate = double(sensor.reportsReceived() - reportsAtStart) / std::max(elapsed, 1e-3);
    sensor.stop();

    std::vector<Hit> hits;
    for (const auto& [code, time] : downs) {
        const auto samples = sensor.samples(time - std::min(time, MachTime::ticks(40)), time + MachTime::ticks(60));
        if (samples.empty()) continue;
        Hit hit;
        hit.group = std::string(rawValue(KeyLayout::group(code)));
        const ForceSample* peak = &samples.front();
        for (const auto& sample : samples)
            if (sample.value > peak->value) peak = &sample;
        hit.offset = MachTime::delta(peak->time, time);
        hit.peak = peak->value;
        for (const auto& sample : samples) hit.trace.emplace_back(MachTime::delta(sample.time, time), sample.value);
        hits.push_back(std::move(hit));
    }
    if (hits.empty()) {
        std::printf("No keys recorded.\n");
        return 1;
    }
    std::vector<double> offsets, peaks;
    int inside = 0;
    for (const auto& hit : hits) {
        offsets.push_back(hit.offset);
        peaks.push_back(hit.peak);
        if (hit.offset >= -12 && hit.offset <= 14) ++inside;
    }
    const double medianPeak = percentile(peaks, 0.5);
    std::printf("Keystrokes: %d   sensor: %.0f Hz   noise floor: %.4f g\n", int(hits.size()), rate, double(noise));
    std::printf("Impact time vs key event (ms):  p10 %+.1f   median %+.1f   p90 %+.1f\n", percentile(offsets, 0.1),
                percentile(offsets, 0.5), percentile(offsets, 0.9));
    std::printf("Impact peak (g):  p10 %.4f   median %.4f   p90 %.4f   max %.4f\n", percentile(peaks, 0.1), medianPeak,
                percentile(peaks, 0.9), *std::max_element(peaks.begin(), peaks.end()));
    std::printf("Signal to noise (median peak / noise): %.1fx\n", medianPeak / std::max(double(noise), 1e-9));
    std::printf("Impacts inside the engine's [-12, +14] ms window: %d%%\n",
                inside * 100 / std::max(int(hits.size()), 1));

    const std::string csv = base + ".csv", traces = base + "-traces.csv";
    FILE* out = std::fopen(csv.c_str(), "w");
    FILE* traceOut = std::fopen(traces.c_str(), "w");
    if (!out || !traceOut) {
        if (out) std::fclose(out);
        if (traceOut) std::fclose(traceOut);
        std::printf("Couldn't write %s in this folder.\n", csv.c_str());
        return 1;
    }
    std::fprintf(out, "index,group,offset_ms,peak_g\n");
    std::fprintf(traceOut, "index,dt_ms,value_g\n");
    for (std::size_t index = 0; index < hits.size(); ++index) {
        const auto& hit = hits[index];
        std::fprintf(out, "%zu,%s,%.3f,%.5f\n", index, hit.group.c_str(), hit.offset, double(hit.peak));
        for (const auto& [dt, value] : hit.trace) std::fprintf(traceOut, "%zu,%.3f,%.5f\n", index, dt, double(value));
    }
    const bool written = std::fclose(out) == 0;
    if (std::fclose(traceOut) != 0 || !written) {
        std::printf("Couldn't write %s in this folder.\n", csv.c_str());
        return 1;
    }
    std::printf("Saved: %s (+ -traces.csv, -sensor.replay)\n", csv.c_str());
    return 0;
}

int selfTest() {
    int failures = 0;
    const auto packs = CommunityPacks::discover();
    check(!packs.empty(), "found " + std::to_string(packs.size()) + " sound packs", failures);

    std::shared_ptr<const LoadedPack> pack;
    if (!packs.empty()) {
        const auto chosen =
            std::find_if(packs.begin(), packs.end(), [](const PackInfo& p) { return p.id == "leopold"; });
        const PackInfo& info = chosen != packs.end() ? *chosen : packs.front();
        try {
            pack = LoadedPack::load(info, AudioOutput::sampleRate);
            const std::size_t takes = pack->sampleCount();
            char memory[32];
            std::snprintf(memory, sizeof memory, "%.1f MiB", double(pack->memoryBytes()) / 1048576.0);
            check(true, "loaded " + printable(info.name) + " (" + std::to_string(takes) + " takes, " + memory + ")",
                  failures);
        } catch (const std::exception& error) {
            check(false, "loaded " + printable(info.name) + ": " + printable(error.what()), failures);
        }
    } else {
        check(false, "loaded a pack (there is none)", failures);
    }

    auto audio = std::make_shared<AudioOutput>();
    std::shared_ptr<ForceSensor> sensor;
    if (auto source = findMotionSource()) sensor = std::make_shared<ForceSensor>(std::move(source));
    Conductor conductor(audio, sensor);
    EngineSettings settings;
    settings.volume = 0; // muted: the check must not play into the user's ears
    conductor.apply(settings, true);
    if (pack) conductor.setPack(pack);

    std::atomic<int> keys{0};
    KeyMonitor monitor([&](const KeyEvent&) { ++keys; });
    const bool capturing = monitor.start();
    check(capturing,
          capturing ? "keyboard capture (keyboard access)"
                    : "keyboard capture (keyboard access): " + printable(monitor.lastError()),
          failures);

    sleepFor(0.4s);
    const std::string backend = audio->backendName();
    const bool forcedNull = [] {
        const char* forced = std::getenv("TOBRIN_AUDIO");
        return forced && std::string_view(forced) == "null";
    }();
    // The null device always runs; it only counts when asked for.
    const bool audioRunning = audio->isRunning() && (backend != "null" || forcedNull);
    check(audioRunning,
          audioRunning ? "audio engine running (" + backend + ")"
                       : std::string("audio engine running: ") +
                             (audio->isRunning() ? "no sound server, only the null device" : "not started"),
          failures);

    const std::uint64_t framesBefore = audio->renderedFrames();
    const std::uint64_t voicesBefore = audio->startedVoices();
    const std::uint16_t phrase[] = {4, 14, 37, 37, 31, 49, 13, 31};
    for (std::size_t index = 0; index < std::size(phrase); ++index) {
        const std::uint16_t code = phrase[index];
        conductor.handle({code, KeyAction::down, MachTime::now()});
        sleepFor(index % 2 ? 0.08s : 0.05s);
        conductor.handle({code, KeyAction::up, MachTime::now()});
    }
    conductor.barrier();
    sleepFor(0.1s);
    const std::uint64_t voices = audio->startedVoices() - voicesBefore;
    check(pack && voices > 0, "synthetic key events (" + std::to_string(voices) + " voices started)", failures);
    const std::uint64_t frames = audio->renderedFrames() - framesBefore;
    check(frames > 0, "render callback ran (" + std::to_string(frames) + " frames)", failures);
    check(audio->droppedCommands() == 0,
          "no dropped commands" +
              (audio->droppedCommands() ? " (" + std::to_string(audio->droppedCommands()) + " dropped)" : ""),
          failures);

    if (sensor) {
        const bool started = sensor->start();
        sleepFor(0.3s);
        const std::uint64_t reports = sensor->reportsReceived();
        check(started && reports > 0, "motion sensor streaming (" + std::to_string(reports) + " reports)", failures);
        sensor->stop();
    } else {
        std::printf("SKIP  motion sensor (not on this computer)\n");
    }
    monitor.stop();
    conductor.shutdown();

    if (failures == 0) {
        std::printf("All checks passed.\n");
        return 0;
    }
    std::printf("%d check(s) failed.\n", failures);
    return 1;
}

namespace {

// A recording process by name (its command name), else by number.
std::string processName(std::int32_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (std::getline(in, name) && !name.empty()) return printable(name, 64);
    return "pid " + std::to_string(pid);
}

std::string describe(const std::optional<MicActivity>& activity) {
    if (!activity) return "no sound server answers";
    std::string text =
        "default input: " + (activity->inputDeviceName ? printable(*activity->inputDeviceName, 80) : "none");
    if (activity->inputDeviceHasOutput) text += " (also plays audio)";
    text += " \xC2\xB7 running: ";
    text += activity->inputRunningSomewhere ? "yes" : "no";
    text += " \xC2\xB7 recording: ";
    if (!activity->recordingProcesses) {
        text += "unknown";
    } else if (activity->recordingProcesses->empty()) {
        text += "nobody";
    } else {
        for (std::size_t index = 0; index < activity->recordingProcesses->size(); ++index)
            text += (index ? ", " : "") + processName((*activity->recordingProcesses)[index]);
    }
    return text;
}

std::string clockTime() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

} // namespace

int micWatch(double seconds) {
    MicMonitor monitor(std::make_unique<PulseMicWatch>());
    const auto activity = monitor.current();
    if (!activity) {
        std::printf("No sound server answers, so the microphone can't be watched.\n");
        return 1;
    }
    std::printf("Watching the microphone for %d s (sound server state only, nothing is recorded).\n", int(seconds));
    std::printf("  %s\n  mic in use: %s\n", describe(activity).c_str(), activity->micInUse() ? "yes" : "no");
    std::fflush(stdout);

    // Changes arrive on the monitor's queue, which current() waits for: they
    // are printed from here.
    std::mutex lock;
    std::vector<bool> changes;
    monitor.setOnChange([&](bool inUse) {
        std::lock_guard guard(lock);
        changes.push_back(inUse);
    });
    monitor.start();
    bool first = true; // the monitor reports the state it starts in once
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
    bool reported = activity->micInUse();
    while (std::chrono::steady_clock::now() < deadline) {
        sleepFor(0.05s);
        std::vector<bool> arrived;
        {
            std::lock_guard guard(lock);
            arrived.swap(changes);
        }
        for (bool inUse : arrived) {
            const bool same = inUse == reported;
            reported = inUse;
            if (first && same) {
                first = false;
                continue;
            }
            first = false;
            std::printf("%s  %s\n  %s\n", clockTime().c_str(),
                        inUse ? "mic in use: sounds pause" : "mic free: sounds resume",
                        describe(monitor.current()).c_str());
            std::fflush(stdout);
        }
    }
    monitor.stop();
    return 0;
}

} // namespace tobrin::app::CLI
