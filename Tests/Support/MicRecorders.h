#pragma once
// Recordings for the microphone watch's tests: Recorder runs a recording
// program (parec, pw-record) as another application would;
// OwnRecording records from this process through libpulse. Both record from
// the sound server this process's environment points at (SoundServers.h) and
// throw the data away.

#include <pulse/error.h>
#include <pulse/simple.h>

#include "Support/RunningProgram.h"

#include <filesystem>
#include <memory>
#include <string>

namespace tobrin::test {

class Recorder {
public:
    // `program` is "parec" or "pw-record"; `source` the source to record
    // from; what it records goes into `folder`.
    Recorder(const std::string& program, const std::string& source, const std::filesystem::path& folder) {
        static int recordings = 0;
        const std::string file = (folder / ("recording-" + std::to_string(++recordings))).string();
        const auto words = program == "pw-record"
                               ? std::vector<std::string>{"/usr/bin/pw-record", "--target", source, file + ".wav"}
                               : std::vector<std::string>{"/usr/bin/" + program, "--device=" + source, "--raw"};
        program_ = std::make_unique<RunningProgram>(words, std::map<std::string, std::string>{}, file + ".out");
    }

    std::int32_t pid() const { return std::int32_t(program_->pid()); }
    void stop() { program_->stop(); }

private:
    std::unique_ptr<RunningProgram> program_;
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
