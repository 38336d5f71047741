#pragma once

// How an IIO device lays out one scan in its buffer: each enabled channel's
// type string (scan_elements/*_type, "le:s16/16>>0", "be:s12/16>>4",
// "le:s64/64>>0", "le:u10/16X3>>0"), its index, scale and offset, and the
// kernel's packing of the channels into a record. Plain values; the parser
// refuses malformed text with a clear message and never reads past a record.

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin {

class IioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct IioScanType {
    bool bigEndian = false;
    bool isSigned = false;
    unsigned bits = 0;        // significant bits
    unsigned storageBits = 0; // 8, 16, 32 or 64
    unsigned repeat = 1;      // elements per channel
    unsigned shift = 0;       // right shift before masking

    // Throws IioError quoting (at most 40 characters of) the text.
    static IioScanType parse(std::string_view text);
    // Bytes the channel takes in a scan.
    std::size_t size() const { return storageBits / 8 * repeat; }
    // The first element at `bytes` (storageBits / 8 of them), shifted,
    // masked and sign-extended.
    std::int64_t decode(const std::uint8_t* bytes) const;

    bool operator==(const IioScanType&) const = default;
};

struct IioChannel {
    std::string name; // "accel_x", "timestamp"
    unsigned index = 0;
    IioScanType type;
    double scale = 1;
    double offset = 0;
};

class IioScanLayout {
public:
    // Channels in any order; the record orders them by index and aligns each
    // to its own size, the whole record to the largest. Throws IioError on
    // two channels with one index.
    explicit IioScanLayout(std::vector<IioChannel> channels);
    IioScanLayout() = default;

    std::size_t recordSize() const { return recordSize_; }
    const std::vector<IioChannel>& channels() const { return channels_; }
    // Position of the channel called `name`; throws IioError when absent.
    std::size_t find(std::string_view name) const;
    std::size_t offset(std::size_t channel) const { return offsets_[channel]; }
    std::int64_t raw(std::span<const std::uint8_t> record, std::size_t channel) const;
    // (raw + offset) × scale, in the channel's unit (m/s² for acceleration).
    double value(std::span<const std::uint8_t> record, std::size_t channel) const;

private:
    std::vector<IioChannel> channels_;
    std::vector<std::size_t> offsets_;
    std::size_t recordSize_ = 0;
};

} // namespace tobrin
