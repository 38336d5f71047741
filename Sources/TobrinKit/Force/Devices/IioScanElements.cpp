// Parsing IIO scan element types and packing records as the kernel does
// (iio_compute_scan_bytes).
#include "TobrinKit/Force/Devices/IioScanElements.h"

#include "TobrinKit/Engine/Core/PrintableText.h"

#include <algorithm>
#include <charconv>

namespace tobrin {
namespace {

[[noreturn]] void refuse(std::string_view text, const char* problem) {
    throw IioError("scan element type \"" + printable(text, 40) + "\": " + problem);
}

// A decimal number of at most three digits at the front of `text`.
bool takeNumber(std::string_view& text, unsigned& number) {
    std::size_t digits = 0;
    while (digits < text.size() && digits < 4 && text[digits] >= '0' && text[digits] <= '9') ++digits;
    if (digits == 0 || digits > 3) return false;
    std::from_chars(text.data(), text.data() + digits, number);
    text.remove_prefix(digits);
    return true;
}

bool take(std::string_view& text, std::string_view prefix) {
    if (text.substr(0, prefix.size()) != prefix) return false;
    text.remove_prefix(prefix.size());
    return true;
}

} // namespace

IioScanType IioScanType::parse(std::string_view text) {
    // [be|le]:[s|u]bits/storagebits[Xrepeat]>>shift, with a line end tolerated.
    const std::string_view whole = text;
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
    IioScanType type;
    if (take(text, "be:"))
        type.bigEndian = true;
    else if (!take(text, "le:"))
        refuse(whole, "no \"le:\" or \"be:\"");
    if (take(text, "s"))
        type.isSigned = true;
    else if (!take(text, "u"))
        refuse(whole, "no \"s\" or \"u\"");
    if (!takeNumber(text, type.bits) || !take(text, "/") || !takeNumber(text, type.storageBits))
        refuse(whole, "no bits/storage");
    if (take(text, "X") && !takeNumber(text, type.repeat)) refuse(whole, "no repeat count");
    if (!take(text, ">>") || !takeNumber(text, type.shift)) refuse(whole, "no shift");
    if (!text.empty()) refuse(whole, "text after the shift");
    if (type.storageBits != 8 && type.storageBits != 16 && type.storageBits != 32 && type.storageBits != 64)
        refuse(whole, "storage is not 8, 16, 32 or 64 bits");
    if (type.bits == 0 || type.shift >= type.storageBits || type.bits > type.storageBits - type.shift)
        refuse(whole, "bits and shift do not fit the storage");
    if (type.repeat == 0 || type.repeat > 64) refuse(whole, "repeat is not 1 to 64");
    return type;
}

std::int64_t IioScanType::decode(const std::uint8_t* bytes) const {
    const unsigned count = storageBits / 8;
    std::uint64_t word = 0;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned at = bigEndian ? i : count - 1 - i;
        word = (word << 8) | bytes[at];
    }
    word >>= shift;
    if (bits < 64) {
        word &= (std::uint64_t(1) << bits) - 1;
        if (isSigned && (word >> (bits - 1)) & 1) word |= ~((std::uint64_t(1) << bits) - 1);
    }
    return std::int64_t(word);
}

IioScanLayout::IioScanLayout(std::vector<IioChannel> channels) : channels_(std::move(channels)) {
    std::sort(channels_.begin(), channels_.end(), [](const auto& a, const auto& b) { return a.index < b.index; });
    for (std::size_t i = 1; i < channels_.size(); ++i)
        if (channels_[i].index == channels_[i - 1].index)
            throw IioError("channels " + channels_[i - 1].name + " and " + channels_[i].name + " share index " +
                           std::to_string(channels_[i].index));
    std::size_t at = 0, largest = 1;
    for (const auto& channel : channels_) {
        const std::size_t size = channel.type.size();
        at = (at + size - 1) / size * size;
        offsets_.push_back(at);
        at += size;
        largest = std::max(largest, size);
    }
    recordSize_ = (at + largest - 1) / largest * largest;
}

std::size_t IioScanLayout::find(std::string_view name) const {
    for (std::size_t i = 0; i < channels_.size(); ++i)
        if (channels_[i].name == name) return i;
    throw IioError("no channel " + std::string(name));
}

std::int64_t IioScanLayout::raw(std::span<const std::uint8_t> record, std::size_t channel) const {
    if (record.size() < recordSize_) throw IioError("record cut short");
    return channels_[channel].type.decode(record.data() + offsets_[channel]);
}

double IioScanLayout::value(std::span<const std::uint8_t> record, std::size_t channel) const {
    return (double(raw(record, channel)) + channels_[channel].offset) * channels_[channel].scale;
}

} // namespace tobrin
