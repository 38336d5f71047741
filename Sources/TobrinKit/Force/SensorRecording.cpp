// Reading and writing recorded motion-sensor streams.
#include "TobrinKit/Force/SensorRecording.h"

#include "TobrinKit/Engine/Core/PrintableText.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

// Error texts quote at most this much of a line, and of the file's path.
constexpr std::size_t maximumQuotedText = 40;
constexpr std::size_t maximumQuotedPath = 1024;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string_view trimmed(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

// "<offset> <hex>" into `recording`; an error message, or empty on success.
std::string parseRecord(std::string_view line, SensorRecording& recording) {
    // An offset alone is an empty report (the writer's output for one).
    const auto space = std::min(line.find_first_of(" \t"), line.size());
    const std::string_view offsetText = line.substr(0, space);
    const std::string_view hex = trimmed(line.substr(space));

    std::uint64_t offset = 0;
    const auto parsed = std::from_chars(offsetText.data(), offsetText.data() + offsetText.size(), offset);
    const bool whole = parsed.ptr == offsetText.data() + offsetText.size();
    if (whole && (parsed.ec == std::errc::result_out_of_range ||
                  (parsed.ec == std::errc() && offset > SensorRecording::maximumOffset))) {
        return "offset " + printable(offsetText, maximumQuotedText) + " is beyond " +
               std::to_string(SensorRecording::maximumOffset) + " nanoseconds";
    }
    if (parsed.ec != std::errc() || !whole) {
        return "offset \"" + printable(offsetText, maximumQuotedText) + "\" is not a whole number of nanoseconds";
    }
    if (!recording.empty() && offset < recording.offset(recording.size() - 1)) return "offsets must not decrease";
    if (hex.size() % 2 != 0) return "report has an odd number of hex digits";
    if (hex.size() / 2 > SensorRecording::maximumReportLength) return "report longer than 256 bytes";

    std::uint8_t report[SensorRecording::maximumReportLength];
    for (std::size_t i = 0; i < hex.size() / 2; ++i) {
        const int high = hexValue(hex[2 * i]), low = hexValue(hex[2 * i + 1]);
        if (high < 0 || low < 0) return "report is not hexadecimal";
        report[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    recording.append(offset, std::span(report, hex.size() / 2));
    return {};
}

void appendLine(std::string& line, std::uint64_t offset, std::span<const std::uint8_t> report) {
    char number[24];
    const auto written = std::to_chars(number, number + sizeof number, offset);
    line.append(number, written.ptr);
    line += ' ';
    for (std::uint8_t byte : report) {
        line += hexDigits[byte >> 4];
        line += hexDigits[byte & 0xF];
    }
    line += '\n';
}

} // namespace

SensorRecording SensorRecording::read(const std::filesystem::path& path) {
    const std::string name = printable(path.string(), maximumQuotedPath);
    // Non-blocking, so that a FIFO is refused below instead of waiting for a writer.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw SensorRecordingError(name + ": cannot open the file: " + std::strerror(errno));
    const struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0) throw SensorRecordingError(name + ": cannot open the file: " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) {
        throw SensorRecordingError(name + ": not a regular file (a FIFO, device or folder cannot be replayed)");
    }

    SensorRecording recording;
    std::string line;
    std::size_t lineNumber = 0;
    bool sawHeader = false;
    const auto take = [&](std::string_view text) {
        ++lineNumber;
        text = trimmed(text);
        if (!sawHeader) {
            if (text != header) {
                throw SensorRecordingError(name + ": not a sensor replay file (the first line must read \"" + header +
                                           "\")");
            }
            sawHeader = true;
            return;
        }
        if (text.empty() || text.front() == '#') return;
        if (auto problem = parseRecord(text, recording); !problem.empty()) {
            throw SensorRecordingError(name + ":" + std::to_string(lineNumber) + ": " + problem);
        }
    };
    char chunk[65536];
    for (;;) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw SensorRecordingError(name + ": read error: " + std::strerror(errno));
        }
        if (got == 0) break;
        std::string_view rest(chunk, std::size_t(got));
        while (!rest.empty()) {
            const std::size_t end = rest.find('\n');
            const std::string_view part = rest.substr(0, end);
            // A line is never held whole beyond the limit, however long it is.
            if (line.size() + part.size() > maximumLineLength) {
                throw SensorRecordingError(name + ":" + std::to_string(lineNumber + 1) + ": line longer than " +
                                           std::to_string(maximumLineLength) + " characters");
            }
            line.append(part);
            if (end == std::string_view::npos) break;
            take(line);
            line.clear();
            rest.remove_prefix(end + 1);
        }
    }
    if (!line.empty()) take(line);
    if (!sawHeader) throw SensorRecordingError(name + ": empty file, not a sensor replay file");
    return recording;
}

void SensorRecording::append(std::uint64_t offset, std::span<const std::uint8_t> report) {
    if (report.size() > maximumReportLength) throw std::invalid_argument("sensor report longer than 256 bytes");
    if (!offsets_.empty() && offset < offsets_.back()) throw std::invalid_argument("sensor offsets must not decrease");
    if (offset > maximumOffset) throw std::invalid_argument("sensor offset beyond 2^62 nanoseconds");
    if (starts_.empty()) starts_.push_back(0);
    offsets_.push_back(offset);
    bytes_.insert(bytes_.end(), report.begin(), report.end());
    starts_.push_back(static_cast<std::uint32_t>(bytes_.size()));
}

std::span<const std::uint8_t> SensorRecording::report(std::size_t index) const {
    return std::span(bytes_).subspan(starts_[index], starts_[index + 1] - starts_[index]);
}

void SensorRecording::write(const std::filesystem::path& path) const {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw SensorRecordingError(path.string() + ": cannot create the file");
    std::string text = std::string(header) + "\n";
    for (std::size_t i = 0; i < size(); ++i) appendLine(text, offsets_[i], report(i));
    out << text;
    out.close();
    if (!out) throw SensorRecordingError(path.string() + ": write error");
}

SensorRecordingWriter::SensorRecordingWriter(const std::filesystem::path& path)
    : path_(path), out_(path, std::ios::binary | std::ios::trunc) {
    if (!out_) throw SensorRecordingError(path.string() + ": cannot create the file");
    out_ << SensorRecording::header << '\n';
}

SensorRecordingWriter::~SensorRecordingWriter() {
    if (out_.is_open()) out_.close();
}

void SensorRecordingWriter::append(std::span<const std::uint8_t> report, std::uint64_t timestamp) {
    if (report.size() > SensorRecording::maximumReportLength) {
        throw std::invalid_argument("sensor report longer than 256 bytes");
    }
    if (count_ == 0) first_ = timestamp;
    const std::uint64_t offset = std::max(timestamp < first_ ? 0 : timestamp - first_, lastOffset_);
    lastOffset_ = offset;
    std::string line;
    appendLine(line, offset, report);
    out_ << line;
    ++count_;
}

void SensorRecordingWriter::close() {
    if (!out_.is_open()) return;
    out_.close();
    if (!out_) throw SensorRecordingError(path_.string() + ": write error");
}

} // namespace tobrin
