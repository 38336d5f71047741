#include "TobrinKit/Building/Loudness.h"

#include "Support/PackFolder.h"
#include "Support/PackTool.h"
#include "Support/PeakMemory.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>

namespace tobrin {
namespace {

namespace fs = std::filesystem;

using test::builtInPack;
using test::quoted;

test::CommandResult render(const std::string& arguments) { return test::packTool("render " + arguments); }

class RenderVerb : public ::testing::Test {
protected:
    test::TemporaryFolder folder;
};

TEST_F(RenderVerb, WritesAStereoTypingDemoAndPrintsItsLoudness) {
    const fs::path out = folder / "demo.wav";
    const auto result = render(builtInPack("cream") + " " + quoted(out) + " --text 'Hello world' --wpm 90");
    ASSERT_EQ(result.exitStatus, 0) << result.output;
    std::smatch match;
    ASSERT_TRUE(
        std::regex_search(result.output, match,
                          std::regex(R"(Wrote (.*) \(Cream, 11 keys, ([0-9.]+) s\)\nLoudness: (-?[0-9.]+) LUFS\n)")))
        << result.output;
    EXPECT_EQ(fs::path(match[1].str()), out);

    // Read back independently: 48 kHz stereo, as long as printed, both
    // channels sounding and placed apart, and the loudness printed is the
    // loudness of what the file holds.
    const auto back = test::readWithSndfile(out);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->channels, 2);
    EXPECT_EQ(back->sampleRate, 48000);
    EXPECT_NEAR(double(back->frames) / 48000.0, std::stod(match[2].str()), 0.051);
    const auto left = back->channel(0), right = back->channel(1);
    EXPECT_NE(left, right);
    const double measured = Loudness::integrated(left, std::span<const float>(right), 48000);
    EXPECT_NEAR(measured, std::stod(match[3].str()), 0.02);
    EXPECT_GT(measured, -45.0);

    // The same command renders the same bytes.
    const fs::path again = folder / "again.wav";
    ASSERT_EQ(render(builtInPack("cream") + " " + quoted(again) + " --text 'Hello world' --wpm 90").exitStatus, 0);
    EXPECT_EQ(test::readFile(again), test::readFile(out));
}

TEST_F(RenderVerb, ABrokenPackPrintsWhatIsWrongAndExitsWithOne) {
    const fs::path noManifest = folder / "empty";
    fs::create_directories(noManifest);
    const fs::path badManifest = folder / "bad";
    test::writeText(badManifest / "pack.json", "{ not json");
    test::PackFolder missingAudio(folder / "missing-audio");
    missingAudio.down("alpha", "medium", {"alpha-medium-1.wav"});

    struct Case {
        fs::path pack;
        std::string expected;
    };
    const Case cases[] = {
        {noManifest, "tobrin-pack: No pack.json in " + noManifest.string()},
        {badManifest, "tobrin-pack: Invalid pack.json: "},
        {missingAudio.info().directory, "tobrin-pack: "},
    };
    for (const auto& c : cases) {
        const fs::path out = folder / "never.wav";
        const auto result = render(quoted(c.pack) + " " + quoted(out));
        EXPECT_EQ(result.exitStatus, 1) << c.pack << "\n" << result.output;
        EXPECT_EQ(result.output.rfind(c.expected, 0), 0u) << result.output;
        EXPECT_FALSE(fs::exists(out));
    }
}

// Loading costs about what the decoded takes hold, not a multiple of the
// file: a 96 kHz take of 4 M frames (16 MB once at 48 kHz) is decoded and
// converted in chunks, and a manifest of 8 MB is refused from its size.
TEST_F(RenderVerb, LoadingAPackCostsAboutWhatItsDecodedTakesHold) {
    test::PackFolder small(folder / "small"), longTake(folder / "long");
    small.sound("a.wav", 0.25f, 4800, 1);
    small.down("alpha", "soft", {"a.wav"});
    const std::vector<float> tone = test::sine(4'000'000, 440, 96000, 0.25);
    test::writeSound(folder / "long" / "a.wav", {tone, tone}, 96000);
    longTake.down("alpha", "soft", {"a.wav"});
    std::string huge = R"({"formatVersion": 1, "id": "p", "name": "P", "kind": "test",
        "groups": {"alpha": {"down": {"soft": ["a.wav")";
    while (huge.size() < 8'000'000) huge += R"(,"a.wav")";
    test::writeText(folder / "huge" / "pack.json", huge + "]}}}}");
    std::filesystem::copy_file(folder / "small" / "a.wav", folder / "huge" / "a.wav");

    const auto run = [&](const fs::path& packFolder) {
        return test::runMeasured(quoted(TOBRIN_PACK_TOOL) + " render " + quoted(packFolder) + " " +
                                 quoted(folder / "out.wav") + " --text a");
    };
    const auto baseline = run(small.info().directory);
    ASSERT_EQ(baseline.exitStatus, 0);
    const auto longRun = run(longTake.info().directory);
    EXPECT_EQ(longRun.exitStatus, 0);
    EXPECT_LT(longRun.peakKiB - baseline.peakKiB, 20 * 1024) << longRun.peakKiB << " KiB against " << baseline.peakKiB;
    const auto hugeRun = run(folder / "huge");
    EXPECT_EQ(hugeRun.exitStatus, 1);
    EXPECT_LT(hugeRun.peakKiB - baseline.peakKiB, 4 * 1024) << hugeRun.peakKiB << " KiB against " << baseline.peakKiB;
}

TEST_F(RenderVerb, BadArgumentsAreUsageErrors) {
    const std::string pack = builtInPack("cream");
    const std::string out = quoted(folder / "x.wav");
    for (const std::string& arguments : {pack, pack + " " + out + " --wpm 0", pack + " " + out + " --wpm fast",
                                         pack + " " + out + " --text", pack + " " + out + " --text '%%'"})
        EXPECT_EQ(render(arguments).exitStatus, 2) << arguments;
    EXPECT_EQ(render(pack + " " + quoted(folder / "no-such-folder" / "x.wav")).exitStatus, 1);
}

TEST_F(RenderVerb, ALengthBeyondTenMinutesIsRefusedAndRunningOutOfMemoryIsAMessage) {
    // 131,000 characters at one word a minute: about 18 days of audio.
    const fs::path text = folder / "long.txt";
    std::ofstream(text) << std::string(131000, 'a');
    const fs::path out = folder / "long.wav";
    const auto refused =
        render(builtInPack("cream") + " " + quoted(out) + " --wpm 1 --text \"$(cat " + quoted(text) + ")\"");
    EXPECT_EQ(refused.exitStatus, 2) << refused.output.substr(0, 300);
    EXPECT_NE(refused.output.find("a render is limited to 10 minutes"), std::string::npos) << refused.output;
    EXPECT_FALSE(fs::exists(out));

    // Nine minutes within an address space too small for them: a message, not an abort.
    const auto starved =
        test::runCommand("ulimit -v 150000 && " + quoted(TOBRIN_PACK_TOOL) + " render " + builtInPack("cream") + " " +
                         quoted(out) + " --wpm 20 --text \"$(printf 'ab %.0s' $(seq 300))\"");
    EXPECT_EQ(starved.exitStatus, 1) << starved.output;
    EXPECT_NE(starved.output.find("out of memory"), std::string::npos) << starved.output;
}

} // namespace
} // namespace tobrin
