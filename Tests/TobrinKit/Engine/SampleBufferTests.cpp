#include "TobrinKit/Engine/Samples/SampleBuffer.h"
#include "TobrinKit/Packs/PackError.h"

#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

namespace tobrin {
namespace {

using test::sine;
using test::TemporaryFolder;
using test::writeSound;

// The message libsndfile itself gives for a file it cannot open.
std::string libraryOpenMessage(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file) {
        sf_close(file);
        return "(opened)";
    }
    return sf_strerror(nullptr);
}

TEST(SampleBuffer, CopiesSamplesAndSharesTheLeftBlockForMono) {
    std::vector<float> left = {0.5f, -0.75f, 0.25f};
    std::vector<float> right = {0.1f, 0.2f, -0.9f};
    SampleBuffer stereo(left, std::span<const float>(right), 48000);
    SampleBuffer mono(left, std::nullopt, 44100);
    left[0] = 7;
    right[0] = 7;

    EXPECT_EQ(stereo.frames(), 3u);
    EXPECT_FALSE(stereo.isMono());
    EXPECT_NE(stereo.left(), stereo.right());
    EXPECT_EQ(stereo.left()[0], 0.5f);
    EXPECT_EQ(stereo.right()[0], 0.1f);
    EXPECT_EQ(stereo.peak(), 0.9f);

    EXPECT_TRUE(mono.isMono());
    EXPECT_EQ(mono.right(), mono.left());
    EXPECT_EQ(mono.peak(), 0.75f);
    EXPECT_DOUBLE_EQ(mono.duration(), 3.0 / 44100);
}

TEST(SampleBuffer, MovingKeepsTheBlocksWhereTheyAre) {
    std::vector<float> left(1000, 0.5f);
    SampleBuffer original(left, std::span<const float>(left), 48000);
    const float* where = original.left();
    std::vector<SampleBuffer> owners;
    owners.push_back(std::move(original));
    for (int i = 0; i < 10; ++i) owners.emplace_back(left, std::nullopt, 48000); // forces reallocation
    EXPECT_EQ(owners.front().left(), where);
    EXPECT_EQ(owners.front().tbSample().left, where);
}

TEST(SampleBufferDeathTest, ChannelsOfDifferentLengthsAreAProgrammingError) {
    std::vector<float> left(4), right(3);
    EXPECT_DEATH(SampleBuffer(left, std::span<const float>(right), 48000), "channels differ");
}

TEST(SampleBufferLoad, DecodesWithoutConversionAtTheEngineRate) {
    TemporaryFolder folder;
    // Values a 16-bit file holds exactly, so decoding must return them unchanged.
    std::vector<float> a, b, c;
    for (int i = 0; i < 480; ++i) {
        a.push_back(static_cast<float>((i % 64) - 32) / 64.0f);
        b.push_back(static_cast<float>(i % 7) / 8.0f);
        c.push_back(-0.5f);
    }
    // Found by fuzzing: a file declaring 1022 channels made every read
    // allocate 16384 frames of all of them. Only the first two are kept.
    std::vector<std::vector<float>> many(1022, c);
    many[0] = b;
    many[1] = a;
    struct Case {
        const char* name;
        std::vector<std::vector<float>> channels;
        int format;
    };
    const Case cases[] = {
        {"mono16.wav", {a}, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"stereo16.wav", {a, b}, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
        {"stereofloat.wav", {b, a}, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"three.wav", {a, b, c}, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"many.wav", many, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
        {"mono.flac", {b}, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        writeSound(folder / test.name, test.channels, 48000, test.format);
        SampleBuffer buffer = SampleBuffer::load(folder / test.name, 48000);
        ASSERT_EQ(buffer.frames(), 480u);
        EXPECT_EQ(buffer.sampleRate(), 48000);
        EXPECT_EQ(buffer.isMono(), test.channels.size() == 1);
        EXPECT_EQ(std::vector<float>(buffer.left(), buffer.left() + 480), test.channels[0]);
        const auto& expectedRight = test.channels.size() == 1 ? test.channels[0] : test.channels[1];
        EXPECT_EQ(std::vector<float>(buffer.right(), buffer.right() + 480), expectedRight);
    }
}

TEST(SampleBufferLoad, ConvertsFortyFourOneStereoToTheSameSoundAtFortyEight) {
    TemporaryFolder folder;
    const std::size_t inFrames = 22050;
    writeSound(folder / "take.wav", {sine(inFrames, 1000, 44100, 0.5), sine(inFrames, 3000, 44100, 0.25)}, 44100,
               SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    SampleBuffer buffer = SampleBuffer::load(folder / "take.wav", 48000);

    EXPECT_EQ(buffer.sampleRate(), 48000);
    EXPECT_NEAR(static_cast<double>(buffer.frames()), inFrames * 48000.0 / 44100.0, 2.0);
    // The same tones generated directly at 48 kHz; the edges, where the
    // converter's filter runs into the start and end, are left out.
    const auto left = sine(buffer.frames(), 1000, 48000, 0.5);
    const auto right = sine(buffer.frames(), 3000, 48000, 0.25);
    double worst = 0;
    for (std::size_t i = 1000; i + 1000 < buffer.frames(); ++i) {
        worst = std::max(worst, static_cast<double>(std::fabs(buffer.left()[i] - left[i])));
        worst = std::max(worst, static_cast<double>(std::fabs(buffer.right()[i] - right[i])));
    }
    EXPECT_LT(worst, 1e-3);
    EXPECT_FALSE(buffer.isMono());
}

TEST(SampleBufferLoad, ConversionDoesNotDependOnWhatWasConvertedBefore) {
    TemporaryFolder folder;
    writeSound(folder / "a.wav", {sine(5000, 700, 44100, 0.5), sine(5000, 900, 44100, 0.5)}, 44100);
    writeSound(folder / "b.wav", {sine(3000, 500, 22050, 0.5)}, 22050);
    writeSound(folder / "c.wav", {sine(7000, 300, 44100, 0.5), sine(7000, 200, 44100, 0.5)}, 44100);
    auto samples = [&](const char* name) {
        SampleBuffer buffer = SampleBuffer::load(folder / name, 48000);
        std::vector<float> both(buffer.left(), buffer.left() + buffer.frames());
        both.insert(both.end(), buffer.right(), buffer.right() + buffer.frames());
        return both;
    };
    const auto first = samples("a.wav");
    ASSERT_FALSE(first.empty());
    for (const char* other : {"b.wav", "c.wav", "a.wav"}) {
        samples(other);
        EXPECT_EQ(samples("a.wav"), first) << "after " << other;
    }
}

TEST(SampleBufferLoad, EmptyAndTruncatedFilesGiveWhatTheyHold) {
    TemporaryFolder folder;
    writeSound(folder / "empty48.wav", {{}}, 48000);
    writeSound(folder / "empty44.wav", {{}, {}}, 44100);
    for (const char* name : {"empty48.wav", "empty44.wav"}) {
        SCOPED_TRACE(name);
        SampleBuffer buffer = SampleBuffer::load(folder / name, 48000);
        EXPECT_EQ(buffer.frames(), 0u);
        EXPECT_NE(buffer.left(), nullptr); // blocks to point at, even empty
        EXPECT_NE(buffer.right(), nullptr);
        EXPECT_EQ(buffer.peak(), 0.0f);
        EXPECT_EQ(buffer.sampleRate(), 48000);
    }

    // A 16-bit stereo file cut 250 frames short: what is there still plays.
    writeSound(folder / "cut.wav", {std::vector<float>(1000, 0.25f), std::vector<float>(1000, -0.25f)}, 48000);
    const auto size = std::filesystem::file_size(folder / "cut.wav");
    std::filesystem::resize_file(folder / "cut.wav", size - 250 * 4);
    SampleBuffer cut = SampleBuffer::load(folder / "cut.wav", 48000);
    EXPECT_EQ(cut.frames(), 750u);
    EXPECT_EQ(cut.right()[749], -0.25f);
}

TEST(SampleBufferLoad, FilesThatCannotBeOpenedFailNamingTheFileAndTheReason) {
    TemporaryFolder folder;
    test::writeText(folder / "notes.wav", "these are notes, not audio at all\n");
    test::writeText(folder / "zero.wav", "");
    writeSound(folder / "full.wav", {std::vector<float>(100, 0.1f)}, 48000);
    std::filesystem::copy_file(folder / "full.wav", folder / "header.wav");
    std::filesystem::resize_file(folder / "header.wav", 30);
    const std::pair<const char*, std::string> cases[] = {
        {"notes.wav", libraryOpenMessage(folder / "notes.wav")},
        {"zero.wav", libraryOpenMessage(folder / "zero.wav")},
        {"header.wav", libraryOpenMessage(folder / "header.wav")},
        {"missing.wav", "No such file or directory"},
    };
    for (const auto& [name, reason] : cases) {
        EXPECT_EQ(test::errorOf([&] { SampleBuffer::load(folder / name, 48000); }),
                  "Can't read " + std::string(name) + ": " + reason);
    }
    // A folder or a FIFO is refused before the library would read (or block on) it.
    std::filesystem::create_directory(folder / "folder.wav");
    ASSERT_EQ(::mkfifo((folder / "fifo.wav").c_str(), 0600), 0);
    EXPECT_THROW(SampleBuffer::load(folder / "folder.wav", 48000), SampleBuffer::OpenError);
    EXPECT_THROW(SampleBuffer::load(folder / "fifo.wav", 48000), SampleBuffer::OpenError);
}

TEST(SampleBufferLoad, AnUnusableRateIsADecodeError) {
    TemporaryFolder folder;
    writeSound(folder / "ok.wav", {std::vector<float>(10, 0.1f)}, 48000);
    for (double rate : {0.0, -48000.0, std::nan("")}) {
        EXPECT_EQ(test::errorOf<PackError>([&] { SampleBuffer::load(folder / "ok.wav", rate); }),
                  "Can't read ok.wav: unsupported format")
            << rate;
    }
}

// The limit counts frames after conversion, and takes as many as it names: a
// file recorded above the output rate holds more frames than it will have,
// and must not be refused for them.
TEST(SampleBufferLoad, FrameLimitIsInclusiveAndCountsConvertedFrames) {
    TemporaryFolder folder;
    for (const int rate : {48000, 44100, 88200, 96000, 192000}) {
        SCOPED_TRACE(rate);
        const std::string name = std::to_string(rate) + ".wav";
        writeSound(folder / name, {sine(std::size_t(rate) / 5, 440, rate, 0.5)}, rate);
        const std::size_t converted = SampleBuffer::load(folder / name, 48000).frames();
        EXPECT_NEAR(double(converted), 48000.0 / 5, 2.0);
        EXPECT_EQ(SampleBuffer::load(folder / name, 48000, converted).frames(), converted);
        EXPECT_THROW(SampleBuffer::load(folder / name, 48000, converted - 1), SampleBuffer::TooLong);
    }
    // Far over the limit is refused without converting the whole file.
    EXPECT_THROW(SampleBuffer::load(folder / "44100.wav", 48000, 100), SampleBuffer::TooLong);
}

// Whatever a float file holds, the decoded sound is finite and within ±4:
// NaN and infinities become silence, huge values the bound. Converted too.
TEST(SampleBufferLoad, BoundsEverySampleToFourAndSilencesNonFiniteOnes) {
    TemporaryFolder folder;
    const std::vector<float> stored = {3e38f, -3e38f, NAN, INFINITY, -INFINITY, 5.0f, -4.5f, 4.0f, 0.5f, -1e-3f};
    const std::vector<float> expected = {4.0f, -4.0f, 0.0f, 0.0f, 0.0f, 4.0f, -4.0f, 4.0f, 0.5f, -1e-3f};
    writeSound(folder / "odd.wav", {stored, expected}, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    const SampleBuffer buffer = SampleBuffer::load(folder / "odd.wav", 48000);
    ASSERT_EQ(buffer.frames(), stored.size());
    for (std::size_t i = 0; i < stored.size(); ++i) {
        EXPECT_EQ(buffer.left()[i], expected[i]) << "frame " << i;
        EXPECT_EQ(buffer.right()[i], expected[i]) << "frame " << i;
    }

    std::vector<float> loud(4410);
    for (std::size_t i = 0; i < loud.size(); ++i) loud[i] = i % 3 == 0 ? 3e38f : (i % 3 == 1 ? -3e38f : NAN);
    writeSound(folder / "loud.wav", {loud}, 44100, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    const SampleBuffer converted = SampleBuffer::load(folder / "loud.wav", 48000);
    ASSERT_GT(converted.frames(), 4000u);
    for (std::size_t i = 0; i < converted.frames(); ++i) {
        ASSERT_TRUE(std::isfinite(converted.left()[i]) && std::fabs(converted.left()[i]) <= 4.0f) << i;
    }
    EXPECT_EQ(converted.peak(), 4.0f);
}

} // namespace
} // namespace tobrin
