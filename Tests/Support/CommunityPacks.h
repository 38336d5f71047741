#pragma once
// Test helpers for community packs: key strokes with a lead-in of silence,
// and zip files written with libarchive's own writer (so tests can also
// write entries no honest tool would: "..", absolute names, links).
// A suite using it links libarchive and libsndfile.

#include "Support/SoundFiles.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

namespace tobrin::test {

// `silenceMs` of silence, then a burst at `frequency` that decays over `lengthMs`.
inline std::vector<float> keyStroke(double silenceMs, double lengthMs, double frequency, int rate,
                                    double amplitude = 0.5) {
    const auto silence = std::size_t(silenceMs * rate / 1000);
    const auto length = std::size_t(lengthMs * rate / 1000);
    std::vector<float> samples(silence, 0.0f);
    const std::vector<float> tone = sine(length, frequency, rate, amplitude);
    for (std::size_t i = 0; i < length; ++i) {
        samples.push_back(tone[i] * float(std::exp(-5.0 * double(i) / double(length))));
    }
    return samples;
}

struct ZipEntry {
    enum class Type { file, symlink, hardlink, folder };
    std::string name;
    std::string data; // the content, or the link's target
    Type type = Type::file;
};

inline void writeZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries) {
    archive* zip = archive_write_new();
    archive_write_set_format_zip(zip);
    ASSERT_EQ(archive_write_open_filename(zip, path.c_str()), ARCHIVE_OK) << archive_error_string(zip);
    for (const ZipEntry& item : entries) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, item.name.c_str());
        archive_entry_set_perm(entry, 0644);
        switch (item.type) {
        case ZipEntry::Type::file:
            archive_entry_set_filetype(entry, AE_IFREG);
            archive_entry_set_size(entry, la_int64_t(item.data.size()));
            break;
        case ZipEntry::Type::symlink:
            archive_entry_set_filetype(entry, AE_IFLNK);
            archive_entry_set_symlink(entry, item.data.c_str());
            break;
        case ZipEntry::Type::hardlink:
            archive_entry_set_filetype(entry, AE_IFREG);
            archive_entry_set_hardlink(entry, item.data.c_str());
            break;
        case ZipEntry::Type::folder: archive_entry_set_filetype(entry, AE_IFDIR); break;
        }
        archive_write_header(zip, entry);
        if (item.type == ZipEntry::Type::file) archive_write_data(zip, item.data.data(), item.data.size());
        archive_entry_free(entry);
    }
    archive_write_close(zip);
    archive_write_free(zip);
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace tobrin::test
