#pragma once
// Recordings for the microphone watch's tests: Recorder runs a recording
// program (parec, pw-record) in a child process, as another application would;
// OwnRecording records from this process through libpulse. Both record from
// the sound server this process's environment points at (SoundServers.h) and
// throw the data away.

#include <pulse/error.h>
#include <pulse/simple.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

namespace tobrin::test {

class Recorder {
public:
    // `program` is "parec" or "pw-record"; `source` the source to record
    // from; pw-record's file goes into `folder`.
    Recorder(const std::string& program, const std::string& source, const std::filesystem::path& folder) {
        const std::string device = "--device=" + source;
        const std::string file = (folder / ("recording-" + std::to_string(++count()) + ".wav")).string();
        pid_ = ::fork();
        if (pid_ == 0) {
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            if (program == "pw-record")
                ::execlp("pw-record", "pw-record", "--target", source.c_str(), file.c_str(),
                         static_cast<char*>(nullptr));
            else
                ::execlp(program.c_str(), program.c_str(), device.c_str(), "--raw", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid_ < 0) throw std::runtime_error("could not start " + program);
    }
    ~Recorder() { stop(); }
    Recorder(Recorder&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Recorder& operator=(Recorder&&) = delete;

    std::int32_t pid() const { return std::int32_t(pid_); }

    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    static int& count() {
        static int recordings = 0;
        return recordings;
    }
    pid_t pid_ = -1;
};

class OwnRecording {
public:
    explicit OwnRecording(const std::string& source) {
        const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, 48000, 2};
        int error = 0;
        stream_ = pa_simple_new(nullptr, "Tobrin tests", PA_STREAM_RECORD, source.c_str(), "own recording", &spec,
                                nullptr, nullptr, &error);
        if (!stream_) error_ = pa_strerror(error);
    }
    ~OwnRecording() {
        if (stream_) pa_simple_free(stream_);
    }
    OwnRecording(const OwnRecording&) = delete;
    OwnRecording& operator=(const OwnRecording&) = delete;

    bool isRecording() const { return stream_ != nullptr; }
    const std::string& error() const { return error_; }

private:
    pa_simple* stream_ = nullptr;
    std::string error_;
};

} // namespace tobrin::test
