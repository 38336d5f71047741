#pragma once

// A recorded motion-sensor stream: reports with their time offsets from the
// start of the recording, read from and written to the replay file format
// (docs/SensorReplayFormat.md). Plain values; not shared between threads.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tobrin {

// A replay file that cannot be opened or parsed; what() names the file (and
// the line) and the problem.
class SensorRecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class SensorRecording {
public:
    static constexpr const char* header = "tobrin-sensor-replay 1";
    static constexpr std::size_t maximumReportLength = 256;
    // Longer lines (comments included) make the file fail: a legal report
    // line is under 600 characters, and a reader that kept any line whole
    // could be made to hold a file's worth of memory.
    static constexpr std::size_t maximumLineLength = 4096;
    // The largest offset, 2^62 ns (about 146 years): the start time plus any
    // offset stays on the clock's 63-bit time line.
    static constexpr std::uint64_t maximumOffset = std::uint64_t(1) << 62;

    // Reads a whole replay file, which must be a regular file (a FIFO or a
    // device is refused, never waited on). Throws SensorRecordingError,
    // whose text quotes at most a few dozen characters of the file.
    static SensorRecording read(const std::filesystem::path& path);

    // Appends one report at `offset` nanoseconds from the start; offsets must
    // not decrease nor pass maximumOffset, and reports hold at most 256 bytes
    // (std::invalid_argument).
    void append(std::uint64_t offset, std::span<const std::uint8_t> report);

    std::size_t size() const { return offsets_.size(); }
    bool empty() const { return offsets_.empty(); }
    std::uint64_t offset(std::size_t index) const { return offsets_[index]; }
    std::span<const std::uint8_t> report(std::size_t index) const;

    // Writes the whole recording. Throws SensorRecordingError.
    void write(const std::filesystem::path& path) const;

private:
    // Reports are stored back to back in one block: a long recording (1000
    // reports a second) then costs 30 bytes a report, not an allocation each.
    std::vector<std::uint64_t> offsets_;
    std::vector<std::uint32_t> starts_; // start of report i in bytes_; report i ends at starts_[i + 1]
    std::vector<std::uint8_t> bytes_;
};

// Writes a replay file as reports arrive (the probe records the live sensor
// with it). Offsets are taken from the first report's time stamp; a time
// stamp earlier than the previous one is written as the previous offset so
// the file stays valid. One thread at a time.
class SensorRecordingWriter {
public:
    // Creates (or replaces) the file and writes the header. Throws SensorRecordingError.
    explicit SensorRecordingWriter(const std::filesystem::path& path);
    ~SensorRecordingWriter();
    SensorRecordingWriter(const SensorRecordingWriter&) = delete;
    SensorRecordingWriter& operator=(const SensorRecordingWriter&) = delete;

    // Reports of more than 256 bytes are refused (std::invalid_argument).
    void append(std::span<const std::uint8_t> report, std::uint64_t timestamp);
    std::size_t count() const { return count_; }

    // Flushes and closes; throws SensorRecordingError if the data did not reach
    // the file. The destructor closes quietly.
    void close();

private:
    std::filesystem::path path_;
    std::ofstream out_;
    std::uint64_t first_ = 0;
    std::uint64_t lastOffset_ = 0;
    std::size_t count_ = 0;
};

} // namespace tobrin
