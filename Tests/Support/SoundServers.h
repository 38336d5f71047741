#pragma once
// Real sound servers for tests: PrivateSoundServer starts a private PipeWire
// (with WirePlumber and pipewire-pulse) or PulseAudio in a temporary folder
// through Tests/Support/sound-servers and points this process at it;
// SinkCapture records a sink's monitor from a separate process (parec), as a
// listener would hear it. Both stop what they started by process id.
//
// A suite using it defines TOBRIN_SOUND_SERVERS_SCRIPT (the script's path).

#include "Support/Environment.h"
#include "Support/IndependentReaders.h"
#include "Support/RunningProgram.h"
#include "Support/TemporaryFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tobrin::test {

enum class SoundServerKind { PipeWire, PulseAudio };

inline const char* serverName(SoundServerKind kind) {
    return kind == SoundServerKind::PipeWire ? "pipewire" : "pulseaudio";
}

class PrivateSoundServer {
public:
    static constexpr const char* defaultSink = "tobrin-test-sink";
    static constexpr const char* secondSink = "tobrin-test-sink-2";

    explicit PrivateSoundServer(SoundServerKind kind) : kind_(kind) {
        guard();
        if (!start()) {
            stop();
            releaseGuardian();
            throw std::runtime_error(std::string("the private ") + serverName(kind) + " did not start");
        }
    }

    ~PrivateSoundServer() {
        stop();
        releaseGuardian();
    }

    PrivateSoundServer(const PrivateSoundServer&) = delete;
    PrivateSoundServer& operator=(const PrivateSoundServer&) = delete;

    // Starts the servers (again, after crash()) and points this process's
    // environment at them.
    bool start() {
        const auto output = script("start " + std::string(serverName(kind_)) + " '" + folder_.path().string() + "'");
        if (!output) return false;
        std::istringstream lines(*output);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t equals = line.find('=');
            if (equals != std::string::npos) environment_.set(line.substr(0, equals).c_str(), line.substr(equals + 1));
        }
        environment_.set("PIPEWIRE_REMOTE", std::nullopt);
        return true;
    }

    // Ends the sound servers abruptly, as a crash or an update would.
    void crash() { script("kill '" + folder_.path().string() + "'"); }
    void stop() { script("stop '" + folder_.path().string() + "'"); }

    bool setDefaultSink(const std::string& sink) {
        return runCommand("pactl set-default-sink '" + sink + "'").succeeded;
    }

    const std::filesystem::path& folder() const { return folder_.path(); }

private:
    // A process that outlives this one and stops the servers when it ends in
    // any way (a failed assertion that aborts, a crash, a time-out's kill):
    // it waits for the end of a pipe only this process holds open.
    void guard() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return;
        const std::string dir = folder_.path().string();
        guardian_ = ::fork();
        if (guardian_ == 0) {
            ::setsid(); // not ended with the test's process group
            ::dup2(fds[0], STDIN_FILENO);
            ::execl("/bin/sh", "sh", "-c", "cat >/dev/null; \"$0\" stop \"$1\" >/dev/null 2>&1; rm -rf \"$1\"",
                    TOBRIN_SOUND_SERVERS_SCRIPT, dir.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(fds[0]);
        lifeline_ = fds[1];
        if (guardian_ < 0) ::close(lifeline_);
    }

    void releaseGuardian() {
        if (guardian_ <= 0) return;
        ::close(lifeline_); // its stop then finds nothing left to do
        ::waitpid(guardian_, nullptr, 0);
        guardian_ = -1;
    }

    // The script's standard output, or nothing when it failed.
    static std::optional<std::string> script(const std::string& arguments) {
        const auto run =
            runCommand(std::string("{ '") + TOBRIN_SOUND_SERVERS_SCRIPT + "' " + arguments + " 2>/dev/null; }");
        return run.succeeded ? std::optional(run.output) : std::nullopt;
    }

    SoundServerKind kind_;
    TemporaryFolder folder_;  // the servers' sockets, configuration and logs
    Environment environment_; // put back when the servers are gone
    pid_t guardian_ = -1;
    int lifeline_ = -1;
};

// Records `sink`'s monitor with parec in a child process and keeps, for every
// block read, when it arrived and its loudest sample.
class SinkCapture {
public:
    using Clock = std::chrono::steady_clock;

    // parec writes into a FIFO this object reads; opened here first (without
    // waiting for a writer), so parec's open of it does not wait either.
    explicit SinkCapture(const std::string& sink) {
        const auto fifo = folder_ / "capture";
        if (::mkfifo(fifo.c_str(), 0600) != 0) throw std::runtime_error("no FIFO for the capture");
        fd_ = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        parec_.emplace(std::vector<std::string>{"/usr/bin/parec", "--device=" + sink + ".monitor", "--raw",
                                                "--format=float32le", "--rate=48000", "--channels=2",
                                                "--latency-msec=5", "--client-name=tobrin-test-capture"},
                       std::map<std::string, std::string>{}, fifo.string());
        ::fcntl(fd_, F_SETFL, 0); // parec holds the other end: reads wait for data, end with parec
        reader_ = std::thread([this] { read(); });
    }

    ~SinkCapture() {
        parec_->stop();
        reader_.join();
        ::close(fd_);
    }

    SinkCapture(const SinkCapture&) = delete;
    SinkCapture& operator=(const SinkCapture&) = delete;

    // When the first block louder than `threshold` that arrived at or after
    // `since` came, waiting up to `timeout` for it.
    std::optional<Clock::time_point> soundAfter(Clock::time_point since, std::chrono::milliseconds timeout,
                                                float threshold = 1e-3f) {
        std::unique_lock guard(lock_);
        std::optional<Clock::time_point> found;
        arrived_.wait_for(guard, timeout, [&] {
            for (const auto& block : blocks_)
                if (block.arrival >= since && block.peak > threshold) {
                    found = block.arrival;
                    return true;
                }
            return false;
        });
        return found;
    }

    // Does `act` (a key typed) every 100 ms until a sound arrives after one;
    // when it did, or nothing when `timeout` passed first.
    template <typename Act>
    std::optional<Clock::time_point> actUntilHeard(Act act, std::chrono::milliseconds timeout) {
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            const auto acted = Clock::now();
            act();
            if (auto heard = soundAfter(acted, std::chrono::milliseconds(100))) return heard;
        }
        return std::nullopt;
    }

    // Whether anything louder than `threshold` arrived at or after `since`.
    bool heardSince(Clock::time_point since, float threshold = 1e-3f) {
        return soundAfter(since, std::chrono::milliseconds(0), threshold).has_value();
    }

    // Waits until the capture delivers audio at all (the stream is linked).
    bool waitUntilCapturing(std::chrono::milliseconds timeout) {
        std::unique_lock guard(lock_);
        return arrived_.wait_for(guard, timeout, [&] { return !blocks_.empty(); });
    }

private:
    struct Block {
        Clock::time_point arrival;
        float peak;
    };

    void read() {
        std::array<float, 512> samples{};
        std::size_t held = 0; // bytes of a sample split across reads
        for (;;) {
            auto* bytes = reinterpret_cast<char*>(samples.data());
            const ssize_t got = ::read(fd_, bytes + held, sizeof samples - held);
            if (got <= 0) return;
            const std::size_t total = held + std::size_t(got);
            const std::size_t count = total / sizeof(float);
            float peak = 0;
            for (std::size_t i = 0; i < count; ++i) peak = std::max(peak, std::fabs(samples[i]));
            held = total - count * sizeof(float);
            std::memmove(bytes, bytes + count * sizeof(float), held);
            {
                std::lock_guard guard(lock_);
                blocks_.push_back({Clock::now(), peak});
            }
            arrived_.notify_all();
        }
    }

    TemporaryFolder folder_;
    int fd_ = -1;
    std::optional<RunningProgram> parec_;
    std::thread reader_;
    std::mutex lock_;
    std::condition_variable arrived_;
    std::vector<Block> blocks_;
};

} // namespace tobrin::test
