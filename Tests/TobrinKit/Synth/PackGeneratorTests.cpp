// The starter packs as the generator writes them: every file against its
// recorded digest, and the properties a deliberate change to the recipes must
// keep before the digests are recorded again.
#include "TobrinKit/Packs/StagedPackFolder.h"
#include "TobrinKit/Synth/PackGenerator.h"

#include "Support/ChildProcess.h"
#include "Support/IndependentReaders.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

namespace tobrin {
namespace {

namespace fs = std::filesystem;

using test::treeOf;

// The five starter packs, rendered once per test process and written on first
// use. CTest runs every case in a process of its own, several at once, so
// each process writes into a folder of its own.
class StarterPacks : public ::testing::Test {
protected:
    static fs::path folder() {
        return fs::path(TOBRIN_TEST_BINARY_DIR) / ("starter-packs-" + std::to_string(::getpid()));
    }
    static void TearDownTestSuite() {
        // Kept after a failure, to be compared, listened to or plotted.
        if (::testing::UnitTest::GetInstance()->failed_test_count() == 0) fs::remove_all(folder());
    }

    static const std::vector<PackGenerator::Take>& takesOf(const SynthProfile& profile) {
        static std::map<std::string, std::vector<PackGenerator::Take>> takes;
        auto& rendered = takes[profile.id];
        if (rendered.empty()) rendered = PackGenerator::renderTakes(profile, 2);
        return rendered;
    }

    static const fs::path& packs() {
        static const fs::path written = [] {
            fs::remove_all(folder());
            for (const SynthProfile& profile : SynthProfile::starterPacks()) {
                PackGenerator::write(profile, takesOf(profile), folder());
            }
            return folder();
        }();
        return written;
    }
};

TEST_F(StarterPacks, MatchTheRecordedDigestOfEveryFile) {
    // Checked by coreutils' sha256sum, an independent implementation; how to
    // record the digests again is written at the top of their file.
    const fs::path recorded = fs::path(TOBRIN_SYNTH_TEST_DATA_DIR) / "StarterPackDigests.sha256";
    const auto check =
        test::runCommand("cd " + test::quoted(packs()) + " && sha256sum --quiet --check " + test::quoted(recorded));
    EXPECT_TRUE(check.succeeded) << check.output << "The generated packs are in " << packs().string();
    std::ifstream lines(recorded);
    std::vector<std::string> listed;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#') listed.push_back(line.substr(66));
    }
    std::sort(listed.begin(), listed.end());
    std::vector<std::string> written;
    for (const auto& [file, bytes] : treeOf(packs())) written.push_back(file);
    EXPECT_EQ(written, listed) << "the generated files differ from the recorded list";
}

TEST_F(StarterPacks, AreWrittenAgainToTheSameBytesOverAGeneratedPackOrAnythingWhenTold) {
    const SynthProfile& typewriter = SynthProfile::typewriter();
    test::TemporaryFolder scratch;
    PackGenerator::generate(typewriter, scratch.path(), 1);
    PackGenerator::generate(typewriter, scratch.path(), 7); // more workers than cores
    EXPECT_EQ(treeOf(scratch / typewriter.id), treeOf(packs() / typewriter.id));
    test::writeText(scratch / typewriter.id / "mine.wav", "a recording");
    PackGenerator::generate(typewriter, scratch.path(), 7, PackGenerator::Overwrite::anything);
    EXPECT_EQ(treeOf(scratch / typewriter.id), treeOf(packs() / typewriter.id));
}

// Measured rather than listened to: harder strikes are louder, releases softer
// than a medium press, and only slams may reach full scale.
TEST_F(StarterPacks, StrikeHarderForLouderReleaseSofterAndClipOnlyWhenSlammed) {
    for (const SynthProfile& profile : SynthProfile::starterPacks()) {
        std::map<std::string, double> energy;
        for (const auto& take : takesOf(profile)) {
            float peak = 0;
            for (const auto* channel : {&take.left, &take.right}) {
                for (float v : *channel) {
                    energy[take.name] += double(v) * v;
                    peak = std::max(peak, std::abs(v));
                }
            }
            // Slams are left as synthesized relative to the reference; every
            // softer take keeps at least 1 dB of headroom.
            if (take.tier != Tier::slam) {
                EXPECT_LT(peak, 0.89f) << profile.id << " " << take.name;
            }
        }
        for (const auto& [name, soft] : energy) {
            const auto of = [&, &n = name](std::string_view tier) {
                const auto dash = n.find('-');
                return energy.at(n.substr(0, dash) + "-" + std::string(tier) + n.substr(n.find('-', dash + 1)));
            };
            if (name.find("-soft-") == std::string::npos) continue;
            const std::string where = profile.id + " " + name;
            EXPECT_LT(soft, of("medium")) << where;
            EXPECT_LT(of("medium"), of("hard")) << where;
            EXPECT_LT(of("hard"), of("slam")) << where;
            EXPECT_LT(of("up"), of("medium")) << where;
        }
    }
}

TEST_F(StarterPacks, ReplaceOnlyAFolderHoldingNothingButAGeneratedPack) {
    const SynthProfile& cream = SynthProfile::cream();
    const test::TemporaryFolder into;
    const fs::path folder = into / cream.id;
    const auto mine = [](const fs::path& file) { std::ofstream(file) << "mine"; };
    PackGenerator::write(cream, takesOf(cream), into.path());
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
        fs::remove_all(folder);
        fs::remove_all(into / "real");
        PackGenerator::write(cream, takesOf(cream), into.path());
        change();
        EXPECT_FALSE(PackGenerator::isGeneratedPack(folder)) << what;
        // Refused before anything is written; the folder stays as it was.
        const auto before = treeOf(into.path());
        EXPECT_THROW(PackGenerator::write(cream, takesOf(cream), into.path()), StagedPackFolder::Refused) << what;
        EXPECT_EQ(treeOf(into.path()), before) << what;
    }
}

TEST_F(StarterPacks, AFailureMidwayLeavesThePreviousPackAsItWas) {
    const SynthProfile& dome = SynthProfile::dome();
    const test::TemporaryFolder into;
    PackGenerator::write(dome, takesOf(dome), into.path());
    const auto before = treeOf(into.path());

    // The 31st take cannot be written (its folder does not exist), as on a full disk.
    std::vector<PackGenerator::Take> failing = takesOf(dome);
    failing[30].name = "missing-folder/" + failing[30].name;
    EXPECT_THROW(PackGenerator::write(dome, failing, into.path()), fs::filesystem_error);

    EXPECT_EQ(treeOf(into.path()), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(into.path()), {}), 1); // the pack, nothing aside
}

TEST_F(StarterPacks, FourProcessesWritingOnePackLeaveItWhole) {
    const SynthProfile& panda = SynthProfile::panda();
    const test::TemporaryFolder into;
    std::vector<std::unique_ptr<test::ChildProcess>> writers;
    for (int w = 0; w < 4; ++w) {
        writers.push_back(std::make_unique<test::ChildProcess>([&](const auto&) {
            for (int round = 0; round < 3; ++round) PackGenerator::write(panda, takesOf(panda), into.path());
            return 0;
        }));
    }
    for (auto& writer : writers) EXPECT_EQ(writer->wait(), 0);
    // Whole and identical to a pack written alone: every listed file there, nothing else.
    EXPECT_EQ(treeOf(into / panda.id), treeOf(packs() / panda.id));
    EXPECT_TRUE(PackGenerator::isGeneratedPack(into / panda.id));
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
    test::TemporaryFolder scratch;
    test::writeText(scratch / "not-a-folder", "a file");
    EXPECT_THROW(PackGenerator::generate(SynthProfile::cream(), scratch / "not-a-folder", 1), fs::filesystem_error);
    EXPECT_TRUE(fs::is_regular_file(scratch / "not-a-folder"));
}

} // namespace
} // namespace tobrin
