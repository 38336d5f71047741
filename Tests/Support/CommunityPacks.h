#pragma once
// Test helpers for community packs: key strokes with a lead-in of silence,
// and zip files written with libarchive's own writer (so tests can also
// write entries no honest tool would: "..", absolute names, links).
// A suite using it links libarchive and libsndfile.

#include "Support/SoundFiles.h"
#include "Support/TemporaryFolder.h"

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
    enum class Type { file, symlink, folder };
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
        case ZipEntry::Type::folder: archive_entry_set_filetype(entry, AE_IFDIR); break;
        }
        archive_write_header(zip, entry);
        if (item.type == ZipEntry::Type::file) archive_write_data(zip, item.data.data(), item.data.size());
        archive_entry_free(entry);
    }
    archive_write_close(zip);
    archive_write_free(zip);
}

inline constexpr int ogg = SF_FORMAT_OGG | SF_FORMAT_VORBIS;
inline constexpr int mp3 = SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;

// A sprite of four strokes, each 150 ms from a multiple of 150 ms with 20 ms
// of silence first, as an Ogg file at 44.1 kHz in stereo.
inline void writeSinglePack(const std::filesystem::path& folder) {
    std::vector<float> sprite;
    for (double frequency : {900.0, 1400.0, 500.0, 700.0}) {
        const auto stroke = keyStroke(20, 130, frequency, 44100, frequency == 900.0 ? 0.8 : 0.4);
        sprite.insert(sprite.end(), stroke.begin(), stroke.end());
    }
    writeSound(folder / "sound.ogg", {sprite, sprite}, 44100, ogg);
    writeText(folder / "config.json", R"({"id":"sp","name":"Sprite Pack","key_define_type":"single",
        "includes_numpad":false,"sound":"sound.ogg","m_author":"Ann","tags":["x"],
        "defines":{"30":[0,150],"30-up":[150,150],"57":[300,150],"28":[450,150],"14":[9000,100],
        "42":[450,5000],"2":null}})");
}

inline void writeMultiPack(const std::filesystem::path& folder) {
    writeSound(folder / "key a (1).mp3", {keyStroke(25, 80, 1000, 48000)}, 48000, mp3);
    writeSound(folder / "space & bar!.mp3", {keyStroke(5, 120, 400, 48000)}, 48000, mp3);
    writeText(folder / "config.json", R"({"name":"Multi","key_define_type":"multi","includes_numpad":true,
        "sound":"key a (1).mp3","defines":{"30":"key a (1).mp3","57":"space & bar!.mp3","28":"missing.mp3","14":null}})");
}

inline void writeZippedPack(const std::filesystem::path& zip, const std::filesystem::path& source) {
    writeSinglePack(source);
    test::writeZip(zip, {{"My Pack/", "", test::ZipEntry::Type::folder},
                         {"My Pack/config.json", test::readFile(source / "config.json")},
                         {"My Pack/sound.ogg", test::readFile(source / "sound.ogg")},
                         {"__MACOSX/My Pack/._config.json", "resource fork"}});
}

} // namespace tobrin::test
