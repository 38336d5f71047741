#include "TobrinKit/Packs/Loading/LoadedPack.h"
#include "TobrinKit/Packs/PackInfo.h"
#include "TobrinKit/Packs/StagedPackFolder.h"
#include "TobrinKit/Synth/KeySynth.h"
#include "TobrinKit/Synth/PackGenerator.h"

#include "Support/ChildProcess.h"
#include "Support/IndependentReaders.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace tobrin {
namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> bytesOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Relative paths of the regular files under `folder`, sorted.
std::vector<std::string> filesUnder(const fs::path& folder) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) files.push_back(fs::relative(entry.path(), folder).string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Every regular file under `folder` with its bytes.
std::map<std::string, std::vector<std::uint8_t>> contentsOf(const fs::path& folder) {
    std::map<std::string, std::vector<std::uint8_t>> contents;
    for (const auto& file : filesUnder(folder)) contents[file] = bytesOf(folder / file);
    return contents;
}

double energyOf(const PackGenerator::Take& take) {
    double sum = 0;
    for (float v : take.left) sum += double(v) * v;
    for (float v : take.right) sum += double(v) * v;
    return sum;
}

float peakOf(const PackGenerator::Take& take) {
    float peak = 0;
    for (float v : take.left) peak = std::max(peak, std::abs(v));
    for (float v : take.right) peak = std::max(peak, std::abs(v));
    return peak;
}

// The five starter packs, rendered once per test process and written on
// first use. CTest runs every case in a process of its own, several at once,
// so each process writes into a folder of its own.
class StarterPacks : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        takes = new std::map<std::string, std::vector<PackGenerator::Take>>;
        for (const SynthProfile& profile : SynthProfile::starterPacks()) {
            (*takes)[profile.id] = PackGenerator::renderTakes(profile, 2);
        }
    }
    static void TearDownTestSuite() {
        // Kept after a failure, to be compared, listened to or plotted.
        if (written && ::testing::UnitTest::GetInstance()->failed_test_count() == 0) fs::remove_all(*written);
        delete written;
        written = nullptr;
        delete takes;
        takes = nullptr;
    }

    static const std::vector<PackGenerator::Take>& takesOf(const SynthProfile& profile) {
        return takes->at(profile.id);
    }

    // The folder holding the five packs, written by PackGenerator::write.
    static const fs::path& packs() {
        if (!written) {
            written = new fs::path(fs::path(TOBRIN_TEST_BINARY_DIR) / ("starter-packs-" + std::to_string(::getpid())));
            fs::remove_all(*written);
            for (const SynthProfile& profile : SynthProfile::starterPacks()) {
                PackGenerator::write(profile, takesOf(profile), *written);
            }
        }
        return *written;
    }

    static fs::path* written;
    static std::map<std::string, std::vector<PackGenerator::Take>>* takes;
};

fs::path* StarterPacks::written = nullptr;
std::map<std::string, std::vector<PackGenerator::Take>>* StarterPacks::takes = nullptr;

TEST_F(StarterPacks, MatchTheRecordedDigestOfEveryFile) {
    // Recorded digests; how to regenerate them is written at the top of the file.
    std::ifstream recorded(fs::path(TOBRIN_SYNTH_TEST_DATA_DIR) / "StarterPackDigests.sha256");
    ASSERT_TRUE(recorded) << "digest file missing";
    std::map<std::string, std::string> expected;
    std::string line;
    while (std::getline(recorded, line)) {
        if (line.empty() || line[0] == '#') continue;
        expected[line.substr(66)] = line.substr(0, 64);
    }

    const std::vector<std::string> files = filesUnder(packs());
    std::vector<std::string> expectedFiles;
    for (const auto& [file, digest] : expected) expectedFiles.push_back(file);
    ASSERT_EQ(files, expectedFiles) << "the generated files differ from the recorded list";

    // Digests by coreutils' sha256sum, an independent implementation.
    std::string command = "cd " + testing::quoted(packs()) + " && sha256sum";
    for (const auto& file : files) command += " " + testing::quoted(file);
    const testing::CommandResult result = testing::runCommand(command);
    ASSERT_TRUE(result.succeeded) << result.output;
    std::istringstream lines(result.output);
    std::size_t checked = 0;
    while (std::getline(lines, line)) {
        const std::string file = line.substr(66);
        EXPECT_EQ(line.substr(0, 64), expected[file])
            << file << " changed; the generated packs are in " << packs().string();
        ++checked;
    }
    EXPECT_EQ(checked, expected.size());
}

TEST_F(StarterPacks, AreTheSameBytesWhateverTheThreadCountAndWhenGeneratedAgain) {
    const fs::path serial = packs().string() + "-one-thread";
    fs::remove_all(serial);
    for (const SynthProfile& profile : SynthProfile::starterPacks()) PackGenerator::generate(profile, serial, 1);
    const std::vector<std::string> files = filesUnder(packs());
    ASSERT_EQ(filesUnder(serial), files);
    for (const auto& file : files) ASSERT_EQ(bytesOf(serial / file), bytesOf(packs() / file)) << file;

    // Again over a generated pack, with more workers than cores; over a
    // pack holding a file the generator did not write only when told to.
    const SynthProfile& typewriter = SynthProfile::typewriter();
    PackGenerator::generate(typewriter, serial, 7);
    std::ofstream(serial / typewriter.id / "mine.wav") << "a recording";
    EXPECT_THROW(PackGenerator::generate(typewriter, serial, 7), StagedPackFolder::Refused);
    EXPECT_TRUE(fs::exists(serial / typewriter.id / "mine.wav"));
    PackGenerator::generate(typewriter, serial, 7, PackGenerator::Overwrite::anything);
    EXPECT_FALSE(fs::exists(serial / typewriter.id / "mine.wav"));
    for (const auto& file : filesUnder(serial / typewriter.id)) {
        ASSERT_EQ(bytesOf(serial / typewriter.id / file), bytesOf(packs() / typewriter.id / file)) << file;
    }
    fs::remove_all(serial);
}

TEST_F(StarterPacks, LevelTheLoudestAlphaMediumTakeToTheReferencePeak) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        float loudest = 0;
        std::size_t references = 0;
        for (const auto& take : takesOf(profile)) {
            EXPECT_EQ(take.isReference, take.group == KeyGroup::alpha && take.tier == Tier::medium) << take.name;
            if (!take.isReference) continue;
            loudest = std::max(loudest, peakOf(take));
            ++references;
        }
        EXPECT_EQ(references, PackGenerator::alphaVariants);
        EXPECT_EQ(loudest, 0.316f) << profile.id;
    }
    // The gain is common: levelled takes keep the synthesizer's proportions.
    const SynthProfile& dome = SynthProfile::dome();
    const auto raw = KeySynth::render(KeyGroup::space, Tier::slam, 1, dome);
    const auto& levelled = takesOf(dome);
    const auto slam = std::find_if(levelled.begin(), levelled.end(),
                                   [](const auto& take) { return take.name == "space-slam-2.wav"; });
    ASSERT_NE(slam, levelled.end());
    ASSERT_EQ(slam->left.size(), raw.left.size());
    const double gain = double(slam->left[100]) / raw.left[100];
    for (std::size_t i = 0; i < raw.left.size(); i += 97) {
        ASSERT_NEAR(slam->left[i], raw.left[i] * gain, 1e-6) << i;
    }
}

TEST_F(StarterPacks, ListEveryWrittenFileOnceInTheirManifests) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        const fs::path pack = packs() / profile.id;
        std::ifstream in(pack / "pack.json");
        const nlohmann::json json = nlohmann::json::parse(in);
        EXPECT_EQ(json.at("formatVersion"), 1);
        EXPECT_EQ(json.at("id"), profile.id);
        EXPECT_EQ(json.at("name"), profile.name);
        EXPECT_EQ(json.at("kind"), profile.kind);
        EXPECT_EQ(json.at("summary"), profile.summary);
        EXPECT_EQ(json.at("author"), "Tobrin");
        EXPECT_EQ(json.at("license"), "Proprietary. Bundled with Tobrin.");

        std::multiset<std::string> listed;
        for (const auto& [group, entry] : json.at("groups").items()) {
            const std::size_t variants = group == "alpha" ? 4 : 2;
            ASSERT_EQ(entry.at("down").size(), 4u) << group;
            for (const auto& [tier, paths] : entry.at("down").items()) {
                ASSERT_EQ(paths.size(), variants) << group << " " << tier;
                for (std::size_t v = 0; v < variants; ++v) {
                    EXPECT_EQ(paths[v], group + "-" + tier + "-" + std::to_string(v + 1) + ".wav");
                    listed.insert(paths[v].get<std::string>());
                }
            }
            ASSERT_EQ(entry.at("up").size(), variants) << group;
            for (const auto& path : entry.at("up")) listed.insert(path.get<std::string>());
        }
        EXPECT_EQ(json.at("groups").size(), 5u);

        std::multiset<std::string> onDisk;
        for (const auto& file : filesUnder(pack)) {
            if (file != "pack.json") onDisk.insert(file);
        }
        EXPECT_EQ(onDisk.size(), 60u) << profile.id;
        EXPECT_EQ(listed, onDisk) << profile.id;
    }
}

TEST_F(StarterPacks, ReadBackThroughIndependentReadersAs16BitStereoOfTheWrittenLength) {
    std::vector<fs::path> files;
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        for (const auto& take : takesOf(profile)) files.push_back(packs() / profile.id / take.name);
    }
    const auto sox = testing::soxInfo(files);
    std::size_t index = 0;
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        for (const auto& take : takesOf(profile)) {
            const fs::path& file = files[index++];
            const auto contents = testing::readWithSndfile(file);
            ASSERT_TRUE(contents) << file;
            EXPECT_EQ(contents->format, SF_FORMAT_WAV | SF_FORMAT_PCM_16) << file;
            EXPECT_EQ(contents->channels, 2) << file;
            EXPECT_EQ(contents->sampleRate, 48000) << file;
            ASSERT_EQ(contents->frames, std::int64_t(take.left.size())) << file;
            // The written samples are the levelled take, up to dither and
            // truncation (and the clamp at full scale).
            for (std::size_t i = 0; i < take.left.size(); ++i) {
                const float left = std::clamp(take.left[i], -1.0f, 1.0f);
                const float right = std::clamp(take.right[i], -1.0f, 1.0f);
                ASSERT_NEAR(contents->floats[2 * i], left, 3.0 / 32768.0) << file << " frame " << i;
                ASSERT_NEAR(contents->floats[2 * i + 1], right, 3.0 / 32768.0) << file << " frame " << i;
            }

            ASSERT_TRUE(sox.contains(file.string())) << file;
            const testing::SoxInfo& info = sox.at(file.string());
            EXPECT_EQ(info.channels, 2) << file;
            EXPECT_EQ(info.sampleRate, 48000) << file;
            EXPECT_EQ(info.precisionBits, 16) << file;
            EXPECT_EQ(info.encoding, "16-bit Signed Integer PCM") << file;
            EXPECT_EQ(info.samples, std::int64_t(take.left.size())) << file;
        }
    }
}

// The takes behave like keys, measured rather than listened to.
TEST_F(StarterPacks, StrikeHarderForLouderAndReleaseSofterThanAPress) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        std::map<std::string, double> energy;
        for (const auto& take : takesOf(profile)) energy[take.name] = energyOf(take);
        for (KeyGroup group : allKeyGroups) {
            const std::string g(rawValue(group));
            const int variants = group == KeyGroup::alpha ? 4 : 2;
            for (int v = 1; v <= variants; ++v) {
                const auto of = [&](std::string_view tier) {
                    return energy.at(g + "-" + std::string(tier) + "-" + std::to_string(v) + ".wav");
                };
                const std::string where = profile.id + " " + g + " " + std::to_string(v);
                EXPECT_GT(of("slam"), of("hard")) << where;
                EXPECT_GT(of("hard"), of("medium")) << where;
                EXPECT_GT(of("medium"), of("soft")) << where;
                EXPECT_LT(of("up"), of("medium")) << where;
            }
        }
    }
}

TEST_F(StarterPacks, OnlyTheTypewriterReturnRingsPastItsDecays) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        double longestDecay = 0;
        for (const auto& mode : profile.modes) longestDecay = std::max(longestDecay, mode.decay);
        for (const auto& take : takesOf(profile)) {
            const std::size_t ordinary =
                std::size_t((longestDecay * KeySynth::shape(take.group).decay * 9.0 + 0.05) * 48000.0);
            const bool bell = profile.id == "typewriter" && take.group == KeyGroup::enter && take.tier;
            EXPECT_EQ(take.left.size() > ordinary, bell) << profile.id << " " << take.name;
            EXPECT_LE(take.left.size(), 76800u) << profile.id << " " << take.name;
            // Every take ends in a fade to exactly 0.
            EXPECT_EQ(take.left.back(), 0.0f) << profile.id << " " << take.name;
            EXPECT_EQ(take.right.back(), 0.0f) << profile.id << " " << take.name;
        }
    }
}

TEST_F(StarterPacks, NoTakeBelowSlamClips) {
    // Slams are left as synthesized relative to the reference: the loudest
    // slams of some packs reach past full scale and are clamped by the
    // writer. Every softer take keeps at least 1 dB of headroom.
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        for (const auto& take : takesOf(profile)) {
            if (take.tier == Tier::slam) continue;
            EXPECT_LT(peakOf(take), 0.89f) << profile.id << " " << take.name;
        }
    }
}

TEST_F(StarterPacks, LoadWithoutAGapToFillInAnyGroup) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        const PackInfo info = PackInfo::read(packs() / profile.id, true);
        EXPECT_EQ(info.id, profile.id);
        const auto pack = LoadedPack::load(info, 48000);
        EXPECT_EQ(pack->sampleCount(), 60u) << profile.id;
        EXPECT_TRUE(pack->hasReleaseSounds());

        // Map each loaded sample back to its take by its frame data.
        std::map<const float*, std::string> names;
        const auto& rendered = takesOf(profile);
        for (KeyGroup group : allKeyGroups) {
            const std::size_t variants = group == KeyGroup::alpha ? 4 : 2;
            EXPECT_EQ(pack->variantCount(group), variants);
            for (std::size_t v = 0; v < variants; ++v) {
                const auto layers = pack->layers(group, v);
                for (Tier tier : allTiers) {
                    const std::size_t t = std::size_t(rawValue(tier));
                    // Gain 1: every tier of every group is its own, not a stand-in.
                    EXPECT_EQ(layers.gains[t], 1.0f) << profile.id << " " << rawValue(group);
                    const std::string expected = std::string(rawValue(group)) + "-" + std::string(name(tier)) + "-" +
                                                 std::to_string(v + 1) + ".wav";
                    const auto take = std::find_if(rendered.begin(), rendered.end(),
                                                   [&](const auto& candidate) { return candidate.name == expected; });
                    ASSERT_NE(take, rendered.end());
                    EXPECT_EQ(layers.samples[t].frames, take->left.size()) << expected;
                    EXPECT_TRUE(names.emplace(layers.samples[t].left, expected).second)
                        << expected << " shares its sound with " << names[layers.samples[t].left];
                }
                const auto release = pack->release(group, v);
                ASSERT_TRUE(release) << profile.id << " " << rawValue(group);
                EXPECT_EQ(release->gain, 1.0f);
                EXPECT_TRUE(names.emplace(release->sample.left, "release").second) << rawValue(group);
            }
        }
        EXPECT_EQ(names.size(), 60u);
    }
}

TEST_F(StarterPacks, ReplaceOnlyAFolderHoldingNothingButAGeneratedPack) {
    const SynthProfile& cream = SynthProfile::cream();
    const fs::path into = packs().string() + "-in-the-way", folder = into / cream.id;
    const auto mine = [](const fs::path& file) { std::ofstream(file) << "mine"; };
    fs::remove_all(into);
    PackGenerator::write(cream, takesOf(cream), into);
    fs::remove(folder / "alpha-soft-1.wav");
    EXPECT_TRUE(PackGenerator::isGeneratedPack(folder)); // a take missing loses nothing

    const std::pair<const char*, std::function<void()>> inTheWay[] = {
        {"a recording added", [&] { mine(folder / "my-take.wav"); }},
        {"a hidden file added", [&] { mine(folder / ".notes"); }},
        {"a take made a link",
         [&] { fs::remove(folder / "enter-up-1.wav"), fs::create_symlink("pack.json", folder / "enter-up-1.wav"); }},
        {"a link to a generated pack", [&] { fs::rename(folder, into / "real"), fs::create_symlink("real", folder); }},
        {"a plain file", [&] { fs::remove_all(folder), mine(folder); }},
    };
    for (const auto& [what, change] : inTheWay) {
        fs::remove_all(into);
        PackGenerator::write(cream, takesOf(cream), into);
        change();
        EXPECT_FALSE(PackGenerator::isGeneratedPack(folder)) << what;
        // Refused before anything is written; the folder stays as it was.
        const auto before = filesUnder(into);
        EXPECT_THROW(PackGenerator::write(cream, takesOf(cream), into), StagedPackFolder::Refused) << what;
        EXPECT_EQ(filesUnder(into), before) << what;
    }
    fs::remove_all(into);
}

TEST_F(StarterPacks, AFailureMidwayLeavesThePreviousPackAsItWas) {
    const SynthProfile& dome = SynthProfile::dome();
    const fs::path into = packs().string() + "-failing";
    fs::remove_all(into);
    PackGenerator::write(dome, takesOf(dome), into);
    const auto before = contentsOf(into);

    // The 31st take cannot be written (its folder does not exist), as on a full disk.
    std::vector<PackGenerator::Take> failing = takesOf(dome);
    failing[30].name = "missing-folder/" + failing[30].name;
    EXPECT_THROW(PackGenerator::write(dome, failing, into), fs::filesystem_error);

    EXPECT_EQ(contentsOf(into), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(into), {}), 1); // the pack, nothing aside
    fs::remove_all(into);
}

TEST_F(StarterPacks, FourProcessesWritingOnePackLeaveItWhole) {
    const SynthProfile& panda = SynthProfile::panda();
    const fs::path into = packs().string() + "-contended";
    fs::remove_all(into);
    std::vector<std::unique_ptr<test::ChildProcess>> writers;
    for (int w = 0; w < 4; ++w) {
        writers.push_back(std::make_unique<test::ChildProcess>([&](const auto&) {
            for (int round = 0; round < 3; ++round) PackGenerator::write(panda, takesOf(panda), into);
            return 0;
        }));
    }
    for (auto& writer : writers) EXPECT_EQ(writer->wait(), 0);
    // Whole and identical to a pack written alone: every listed file there, nothing else.
    EXPECT_EQ(contentsOf(into / panda.id), contentsOf(packs() / panda.id));
    EXPECT_TRUE(PackGenerator::isGeneratedPack(into / panda.id));
    fs::remove_all(into);
}

TEST(PackGenerator, RendersTheSameTakesOnAnyNumberOfWorkers) {
    // Also the case the thread sanitizer runs: workers share only the
    // take index counter and write disjoint slots.
    const auto serial = PackGenerator::renderTakes(SynthProfile::panda(), 1);
    const auto parallel = PackGenerator::renderTakes(SynthProfile::panda(), 4);
    ASSERT_EQ(serial.size(), 60u);
    ASSERT_EQ(parallel.size(), serial.size());
    for (std::size_t i = 0; i < serial.size(); ++i) {
        EXPECT_EQ(parallel[i].name, serial[i].name);
        EXPECT_EQ(parallel[i].left, serial[i].left) << serial[i].name;
        EXPECT_EQ(parallel[i].right, serial[i].right) << serial[i].name;
    }
}

TEST(PackGenerator, ThrowsTheFileSystemErrorWhenThePackFolderCannotBeMade) {
    const fs::path blocker = fs::path(TOBRIN_TEST_BINARY_DIR) / "not-a-folder";
    fs::remove_all(blocker);
    std::ofstream(blocker) << "a file";
    EXPECT_THROW(PackGenerator::generate(SynthProfile::cream(), blocker, 1), fs::filesystem_error);
    EXPECT_TRUE(fs::is_regular_file(blocker));
    fs::remove(blocker);
}

} // namespace
} // namespace tobrin
