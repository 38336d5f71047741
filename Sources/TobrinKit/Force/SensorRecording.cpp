// Reading and writing recorded motion-sensor streams.
#include "TobrinKit/Force/SensorRecording.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace tobrin {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

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
    if (parsed.ec != std::errc() || parsed.ptr != offsetText.data() + offsetText.size()) {
        return "offset \"" + std::string(offsetText) + "\" is not a whole number of nanoseconds";
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
    std::ifstream in(path);
    if (!in) throw SensorRecordingError(path.string() + ": cannot open the file");

    SensorRecording recording;
    std::string line;
    std::size_t lineNumber = 0;
    bool sawHeader = false;
    while (std::getline(in, line)) {
        ++lineNumber;
        const std::string_view text = trimmed(line);
        if (!sawHeader) {
            if (text != header) {
                throw SensorRecordingError(path.string() + ": not a sensor replay file (the first line must read \"" +
                                           header + "\")");
            }
            sawHeader = true;
            continue;
        }
        if (text.empty() || text.front() == '#') continue;
        if (auto problem = parseRecord(text, recording); !problem.empty()) {
            throw SensorRecordingError(path.string() + ":" + std::to_string(lineNumber) + ": " + problem);
        }
    }
    if (in.bad()) throw SensorRecordingError(path.string() + ": read error");
    if (!sawHeader) throw SensorRecordingError(path.string() + ": empty file, not a sensor replay file");
    return recording;
}

void SensorRecording::append(std::uint64_t offset, std::span<const std::uint8_t> report) {
    if (report.size() > maximumReportLength) throw std::invalid_argument("sensor report longer than 256 bytes");
    if (!offsets_.empty() && offset < offsets_.back()) throw std::invalid_argument("sensor offsets must not decrease");
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
