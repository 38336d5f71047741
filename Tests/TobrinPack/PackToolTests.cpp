#include "TobrinKit/Building/Loudness.h"
#include "TobrinKit/Building/WAVWriter.h"

#include "Support/ChildProcess.h"
#include "Support/PackFolder.h"
#include "Support/PackTool.h"
#include "Support/PeakMemory.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace tobrin {
namespace {

namespace fs = std::filesystem;

using test::packTool;
using test::quoted;

class PackTool : public ::testing::Test {
protected:
    test::TemporaryFolder folder;
};

TEST_F(PackTool, HelpListsEveryVerbAndAnUnknownVerbIsAUsageError) {
    const auto help = packTool("--help");
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* text : {"Usage: tobrin-pack", "generate [DIR]", "loudness FILE..."}) {
        EXPECT_NE(help.output.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(packTool("-h").output, help.output);

    const auto unknown = packTool("polish");
    EXPECT_EQ(unknown.exitStatus, 2);
    EXPECT_NE(unknown.output.find("unknown verb polish"), std::string::npos) << unknown.output;
    EXPECT_EQ(packTool("").exitStatus, 2);
    EXPECT_EQ(packTool("generate --threads 0 " + quoted(folder.path())).exitStatus, 2);
    EXPECT_EQ(packTool("loudness").exitStatus, 2);
}

TEST_F(PackTool, LoudnessPrintsEachFilesLUFSFirstOnItsLine) {
    // Half-scale 997 Hz sines: one channel reads 6.02 dB below the −3.01 LUFS
    // of full scale, two channels 3.01 dB above one.
    const auto stereo = test::sine(96000, 997, 48000, 0.5), mono = test::sine(88200, 997, 44100, 0.5);
    WAVWriter::write(stereo, std::span<const float>(stereo), 48000, folder / "stereo.wav");
    WAVWriter::write(mono, std::nullopt, 44100, folder / "sine 44k.wav");
    WAVWriter::write(std::vector<float>(1000, 0.5f), std::nullopt, 48000, folder / "short.wav");

    const auto result = packTool("loudness " + quoted(folder / "stereo.wav") + " " + quoted(folder / "missing.wav") +
                                 " " + quoted(folder / "sine 44k.wav") + " " + quoted(folder / "short.wav"));
    EXPECT_EQ(result.exitStatus, 1); // one file could not be read; the others are still measured
    std::istringstream lines(result.output);
    std::vector<std::string> measured;
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("tobrin-pack: ", 0) != 0) measured.push_back(line);
    }
    ASSERT_EQ(measured.size(), 3u) << result.output;
    EXPECT_NEAR(std::stod(measured[0]), -6.02, 0.1) << measured[0];
    EXPECT_NE(measured[0].find("stereo.wav"), std::string::npos);
    // 44.1 kHz is converted first.
    EXPECT_NEAR(std::stod(measured[1]), -3.01 - 6.02, 0.1) << measured[1];
    EXPECT_EQ(measured[2].rfind("-inf LUFS", 0), 0u) << measured[2];
    EXPECT_NE(result.output.find("missing.wav"), std::string::npos);
}

// A file is measured as it is decoded: a minute of stereo costs no more
// memory than a second (held whole as float it would be 23 MB more).
TEST_F(PackTool, LoudnessOfALongFileTakesNoMoreMemoryThanOfAShortOne) {
    const auto noise = test::sine(48000 * 63, 997, 48000, 0.4);
    WAVWriter::write(std::span<const float>(noise).first(48000), std::span<const float>(noise).first(48000), 48000,
                     folder / "second.wav");
    WAVWriter::write(noise, std::span<const float>(noise), 48000, folder / "minute.wav");
    const auto shortRun = test::runMeasured(quoted(TOBRIN_PACK_TOOL) + " loudness " + quoted(folder / "second.wav"));
    const auto longRun = test::runMeasured(quoted(TOBRIN_PACK_TOOL) + " loudness " + quoted(folder / "minute.wav"));
    ASSERT_EQ(shortRun.exitStatus, 0);
    ASSERT_EQ(longRun.exitStatus, 0);
    EXPECT_LT(longRun.peakKiB - shortRun.peakKiB, 4096) << longRun.peakKiB << " KiB against " << shortRun.peakKiB;
}

// Samples far beyond full scale (a float file may hold ±3e38) are measured
// as the engine would play them, bounded to ±4, not as infinities or NaN.
TEST_F(PackTool, LoudnessMeasuresHugeFloatSamplesAsTheBoundedSamplesTheEnginePlays) {
    const auto huge = test::sine(48000, 997, 48000, 3e38);
    std::vector<float> bounded(huge.size());
    std::transform(huge.begin(), huge.end(), bounded.begin(), [](float v) { return std::clamp(v, -4.0f, 4.0f); });
    test::writeSound(folder / "huge.wav", {huge}, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    const auto result = packTool("loudness " + quoted(folder / "huge.wav"));
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_NEAR(std::stod(result.output), Loudness::integrated(bounded, std::nullopt, 48000), 0.01) << result.output;
}

TEST_F(PackTool, GenerateWritesTheFiveStarterPacksIntoTheUsersPacksFolder) {
    const auto result = packTool("generate", "XDG_DATA_HOME=" + quoted(folder.path()));
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    const fs::path packs = folder / "Tobrin" / "Packs";
    for (const char* id : {"cream", "blue-click", "panda", "dome", "typewriter"}) {
        EXPECT_TRUE(fs::is_regular_file(packs / id / "pack.json")) << id;
        EXPECT_NE(result.output.find((packs / id).string()), std::string::npos) << result.output;
    }
}

TEST_F(PackTool, GenerateLeavesWhatItDidNotWriteAloneUnlessToldToReplaceIt) {
    // The user's own folder of a starter pack's name, and a plain file of another's.
    test::writeText(folder / "cream" / "my-recording.wav", "mine");
    std::ofstream(folder / "panda") << "notes";

    const auto refused = packTool("generate " + quoted(folder.path()));
    EXPECT_EQ(refused.exitStatus, 1) << refused.output;
    for (const char* id : {"cream", "panda"}) {
        EXPECT_NE(refused.output.find((folder / id).string() + " is in the way"), std::string::npos) << refused.output;
    }
    EXPECT_NE(refused.output.find("--replace"), std::string::npos) << refused.output;
    EXPECT_TRUE(fs::is_regular_file(folder / "cream" / "my-recording.wav"));
    EXPECT_TRUE(fs::is_regular_file(folder / "panda"));
    EXPECT_FALSE(fs::exists(folder / "blue-click")); // nothing was written

    const auto replaced = packTool("generate --replace " + quoted(folder.path()));
    ASSERT_EQ(replaced.exitStatus, 0) << replaced.output;
    EXPECT_FALSE(fs::exists(folder / "cream" / "my-recording.wav"));
    // What it generated, it regenerates without being told, leaving nothing beside.
    EXPECT_EQ(packTool("generate " + quoted(folder.path())).exitStatus, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 5);
}

TEST_F(PackTool, GenerateWithoutAHomeFolderSaysWhatIsMissing) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can run as a user without an account";
    const std::string user = std::to_string(test::userWithoutAccount);
    const auto result =
        test::runCommand("cd / && env -u HOME -u XDG_DATA_HOME setpriv --reuid=" + user + " --regid=" + user +
                         " --clear-groups " + quoted(TOBRIN_PACK_TOOL) + " generate");
    EXPECT_EQ(result.exitStatus, 1) << result.output; // not an abort
    EXPECT_NE(result.output.find("no folder for your packs"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("tobrin-pack generate DIR"), std::string::npos) << result.output;
}

TEST_F(PackTool, PrintsAPacksNameWithControlCharactersEscaped) {
    // A pack whose name would retitle and clear the terminal.
    test::PackFolder evil(folder / "evil", "evil", "Evil\x1b]0;owned\x07\x1b[2J");
    evil.sound("a.wav", 0.5f);
    evil.down("alpha", "medium", {"a.wav"});

    const auto rendered = packTool("render " + quoted(evil.info().directory) + " " + quoted(folder / "out.wav"));
    EXPECT_EQ(rendered.exitStatus, 0) << rendered.output;
    EXPECT_NE(rendered.output.find("(Evil\\x1B]0;owned\\x07\\x1B[2J, "), std::string::npos) << rendered.output;
    EXPECT_EQ(rendered.output.find_first_of("\x1b\x07"), std::string::npos) << rendered.output;
}

} // namespace
} // namespace tobrin
