#include "TobrinKit/Building/WAVWriter.h"

#include "Support/ChildProcess.h"
#include "Support/IndependentReaders.h"
#include "Support/SoundFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace tobrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using test::readFile;

class WAVWriterTest : public ::testing::Test {
protected:
    test::TemporaryFolder folder;
};

std::vector<float> ramp(std::size_t frames) {
    std::vector<float> out(frames);
    for (std::size_t i = 0; i < frames; ++i) out[i] = float(std::sin(double(i) * 0.01) * 0.8);
    return out;
}

// libsndfile writes the canonical 44-byte header for 16-bit PCM too: the
// header must match it byte for byte, and the file be no longer than it.
TEST_F(WAVWriterTest, WritesTheCanonicalHeaderForMonoAndStereo) {
    struct Case {
        bool stereo;
        int rate;
        std::size_t frames;
    };
    for (const Case& c :
         {Case{false, 48000, 1000}, Case{true, 48000, 1000}, Case{true, 44100, 3}, Case{false, 48000, 0}}) {
        SCOPED_TRACE(::testing::Message() << c.stereo << " " << c.rate << " " << c.frames);
        const std::vector<float> left = ramp(c.frames);
        WAVWriter::write(left, c.stereo ? std::optional<std::span<const float>>(left) : std::nullopt, c.rate,
                         folder / "header.wav");
        test::writeSound(folder / "reference.wav", std::vector(c.stereo ? 2u : 1u, left), c.rate);
        const auto written = readFile(folder / "header.wav"), reference = readFile(folder / "reference.wav");
        EXPECT_EQ(written.size(), reference.size());
        EXPECT_EQ(written.substr(0, 44), reference.substr(0, 44));
    }
}

TEST_F(WAVWriterTest, LibsndfileReadsTheWrittenFormatLengthAndSamples) {
    const std::vector<float> left = ramp(12345);
    const std::vector<float> right = ramp(12346); // longer right: only left's length counts
    const fs::path stereo = folder / "stereo.wav";
    const fs::path mono = folder / "mono.wav";
    WAVWriter::write(left, std::span<const float>(right), 48000, stereo);
    WAVWriter::write(left, std::nullopt, 48000, mono);

    for (const auto& [file, channels] : {std::pair{stereo, 2}, std::pair{mono, 1}}) {
        const auto contents = test::readWithSndfile(file);
        ASSERT_TRUE(contents) << file;
        EXPECT_EQ(contents->format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
        EXPECT_EQ(contents->channels, channels);
        EXPECT_EQ(contents->sampleRate, 48000);
        EXPECT_EQ(contents->frames, 12345);
        // Within the dither (one step), the truncation (one step) and
        // libsndfile's scaling by 1/32768 of the input.
        for (std::size_t i = 0; i < left.size(); ++i) {
            ASSERT_NEAR(contents->floats[i * std::size_t(channels)], left[i], 3.0 / 32768.0) << i;
        }
    }
}

TEST_F(WAVWriterTest, ClampsAndTruncatesTheEdgeValues) {
    struct Case {
        float input;
        int lowest;
        int highest;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // Full scale itself lands one step inside when its dither points inward.
    const std::vector<Case> cases = {
        {1.0f, 32766, 32767},    {1.5f, 32767, 32767}, {nan, 32767, 32767}, {-1.0f, -32767, -32766},
        {-3.0f, -32767, -32767}, {0.5f, 16382, 16384}, {0.0f, -1, 0},
    };
    // Each value repeated so that many dither draws meet it, in both channels.
    std::vector<float> samples;
    for (const Case& c : cases) samples.insert(samples.end(), 500, c.input);
    const fs::path file = folder / "edges.wav";
    WAVWriter::write(samples, std::span<const float>(samples), 48000, file);
    const auto contents = test::readWithSndfile(file);
    ASSERT_TRUE(contents);
    for (std::size_t k = 0; k < cases.size(); ++k) {
        for (std::size_t i = k * 500; i < (k + 1) * 500; ++i) {
            for (int channel = 0; channel < 2; ++channel) {
                const int value = contents->samples[i * 2 + std::size_t(channel)];
                ASSERT_GE(value, cases[k].lowest) << "input " << cases[k].input;
                ASSERT_LE(value, cases[k].highest) << "input " << cases[k].input;
            }
        }
    }
    // Without dither: full scale maps to ±32,767 (never −32,768), and the
    // fraction is dropped, not rounded.
    EXPECT_EQ(WAVWriter::quantise(1.0f, 0.0f), 32767);
    EXPECT_EQ(WAVWriter::quantise(-1.0f, 0.0f), -32767);
    EXPECT_EQ(WAVWriter::quantise(0.5f, 0.0f), 16383);
    EXPECT_EQ(WAVWriter::quantise(-0.5f, 0.0f), -16383);
    EXPECT_EQ(WAVWriter::quantise(1.0f, -0x1p-16f), 32766);
}

TEST_F(WAVWriterTest, DitherIsTriangularAndOneStepWide) {
    // 0.3 × 32,767 = 9,830.1. With triangular dither t in (−1, 1) steps, the
    // truncated value is 9,829 when t < −0.1 (probability 0.405), 9,831 when
    // t ≥ 0.9 (0.005), else 9,830. Rectangular dither would give 0.45 / 0.
    const std::vector<float> samples(200000, 0.3f);
    const fs::path file = folder / "dither.wav";
    WAVWriter::write(samples, std::nullopt, 48000, file);
    const auto contents = test::readWithSndfile(file);
    ASSERT_TRUE(contents);
    std::map<int, double> share;
    for (short value : contents->samples) share[value] += 1.0 / double(samples.size());
    ASSERT_EQ(share.size(), 3u);
    EXPECT_NEAR(share[9829], 0.405, 0.01);
    EXPECT_NEAR(share[9830], 0.590, 0.01);
    EXPECT_NEAR(share[9831], 0.005, 0.002);
}

TEST_F(WAVWriterTest, SameInputGivesSameBytesAndStereoInterleavesTheDraws) {
    const std::vector<float> left = ramp(5000);
    const std::vector<float> right = ramp(5000);
    WAVWriter::write(left, std::span<const float>(right), 48000, folder / "a.wav");
    WAVWriter::write(left, std::span<const float>(right), 48000, folder / "b.wav");
    EXPECT_EQ(readFile(folder / "a.wav"), readFile(folder / "b.wav"));

    WAVWriter::write(left, std::nullopt, 48000, folder / "mono.wav");
    const auto stereo = test::readWithSndfile(folder / "a.wav");
    const auto mono = test::readWithSndfile(folder / "mono.wav");
    ASSERT_TRUE(stereo && mono);
    std::size_t differing = 0;
    for (std::size_t i = 0; i < left.size(); ++i) differing += stereo->samples[i * 2] != mono->samples[i];
    EXPECT_GT(differing, left.size() / 4);
}

// A link to a regular file at the target is replaced, never followed.
TEST_F(WAVWriterTest, ALinkPlantedAtTheTargetIsReplacedNotFollowed) {
    const fs::path victim = folder / "victim.txt", file = folder / "take.wav";
    std::ofstream(victim) << "precious";
    fs::create_symlink(victim, file);
    WAVWriter::write(ramp(100), std::nullopt, 48000, file);
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(file)));
    const auto back = test::readWithSndfile(file);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->frames, 100);
}

TEST_F(WAVWriterTest, WritesIntoAFifoAndReplacesAFileWholeKeepingItsModeAndOwner) {
    const std::vector<float> left = ramp(48000); // 96 kB, more than a pipe holds at once
    const fs::path regular = folder / "regular.wav";
    WAVWriter::write(left, std::nullopt, 48000, regular);
    const auto expected = readFile(regular);

    // A FIFO, named directly and through a link, is written to and stays.
    const fs::path fifo = folder / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    fs::create_symlink("fifo", folder / "link.wav");
    for (const fs::path& target : {fifo, folder / "link.wav"}) {
        test::ChildProcess reader([&](const auto& ready) {
            std::ifstream in(fifo, std::ios::binary); // waits for a writer
            std::ofstream(folder / "received.wav", std::ios::binary) << in.rdbuf();
            ready();
            return 0;
        });
        WAVWriter::write(left, std::nullopt, 48000, target);
        ASSERT_TRUE(reader.waitUntilReady(10s)) << target;
        EXPECT_EQ(readFile(folder / "received.wav"), expected) << target;
        EXPECT_TRUE(fs::is_fifo(fs::symlink_status(fifo)));
    }
    EXPECT_TRUE(fs::is_symlink(fs::symlink_status(folder / "link.wav")));

    // A replaced file keeps its mode, and its owner where the process may set it.
    const bool root = ::geteuid() == 0;
    ASSERT_EQ(::chmod(regular.c_str(), 0640), 0);
    ASSERT_EQ(::chown(regular.c_str(), root ? 4321 : ::getuid(), root ? 4322 : ::getgid()), 0);
    WAVWriter::write(ramp(10), std::nullopt, 48000, regular);
    struct stat status {};
    ASSERT_EQ(::stat(regular.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 44 + 20);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(std::pair(status.st_uid, status.st_gid), std::pair(4321u, 4322u));
    }
    // Replaced whole, with nothing left aside: the FIFO, the link, the copy and the file.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 4);
}

TEST_F(WAVWriterTest, AFolderThatDoesNotExistFailsWithTheFileSystemError) {
    const auto write = [&] { WAVWriter::write(ramp(10), std::nullopt, 48000, folder / "missing" / "take.wav"); };
    EXPECT_THAT(test::errorOf<fs::filesystem_error>(write), ::testing::HasSubstr("No such file or directory"));
    EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST(WAVWriterDeathTest, RejectsAShortRightChannelAndRatesBeyondThirtyTwoBits) {
    const std::vector<float> left(10, 0.1f), right(9, 0.1f);
    const fs::path file = fs::path(TOBRIN_TEST_BINARY_DIR) / "never.wav";
    EXPECT_DEATH(WAVWriter::write(left, std::span<const float>(right), 48000, file), "shorter");
    EXPECT_DEATH(WAVWriter::write(left, std::nullopt, 0x1'0000'0000LL, file), "rate");
    EXPECT_DEATH(WAVWriter::write(left, std::nullopt, -1, file), "rate");
    // A rate that fits in 32 bits whose byte rate does not.
    EXPECT_DEATH(WAVWriter::write(left, std::span<const float>(left), 0xFFFF'FFFFLL, file), "byte rate");
}

} // namespace
} // namespace tobrin
