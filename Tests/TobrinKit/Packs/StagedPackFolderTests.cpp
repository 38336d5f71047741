#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/PackManifest.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include "Support/ChildProcess.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tobrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::ScratchFolder;

const StagedPackFolder::MayReplace anything = [](const fs::path&) { return true; };

// A pack of `count` takes whose names and contents carry `tag`.
void writePack(const fs::path& folder, const std::string& tag, int count) {
    PackManifest manifest;
    manifest.id = "pack";
    manifest.name = "Pack " + tag;
    manifest.kind = "test";
    auto& takes = manifest.groups["alpha"].down["soft"];
    for (int i = 0; i < count; ++i) {
        takes.push_back("take-" + tag + "-" + std::to_string(i) + ".wav");
        test::writeText(folder / takes.back(), tag + " " + std::to_string(i));
    }
    manifest.write(folder / "pack.json");
}

// Every file under `folder` with its contents.
std::map<std::string, std::string> contentsOf(const fs::path& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        std::ifstream in(entry.path(), std::ios::binary);
        files[fs::relative(entry.path(), folder).string()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return files;
}

std::set<std::string> entriesOf(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename().string());
    return names;
}

TEST(StagedPackFolder, SwapsAWholePackInOnlyOnCommitAndOnlyOverWhatMayGo) {
    ScratchFolder scratch;
    const fs::path target = scratch / "packs" / "pack";
    {
        StagedPackFolder staged(target, nullptr); // nothing there: nothing to ask about
        writePack(staged.folder(), "one", 3);
        EXPECT_FALSE(fs::exists(target));
        staged.commit();
    }
    const auto first = contentsOf(target);
    EXPECT_EQ(first.size(), 4u);
    EXPECT_EQ(entriesOf(scratch / "packs"), std::set<std::string>{"pack"});

    {
        StagedPackFolder staged(target, anything);
        writePack(staged.folder(), "abandoned", 2);
    } // no commit: the old pack stays, the staging folder goes
    EXPECT_EQ(contentsOf(target), first);
    EXPECT_EQ(entriesOf(scratch / "packs"), std::set<std::string>{"pack"});

    EXPECT_THROW(StagedPackFolder(target, [](const fs::path&) { return false; }), StagedPackFolder::Refused);
    {
        // Asked again at the commit: what came meanwhile is not overwritten either.
        bool allowed = true;
        StagedPackFolder staged(target, [&](const fs::path&) { return allowed; });
        writePack(staged.folder(), "two", 2);
        allowed = false;
        EXPECT_THROW(staged.commit(), StagedPackFolder::Refused);
    }
    EXPECT_EQ(contentsOf(target), first);

    {
        StagedPackFolder staged(target, anything);
        writePack(staged.folder(), "two", 2);
        staged.commit();
    }
    EXPECT_EQ(PackManifest::read(target).name, "Pack two");
    EXPECT_EQ(contentsOf(target).size(), 3u);
    EXPECT_EQ(entriesOf(scratch / "packs"), std::set<std::string>{"pack"});
}

TEST(StagedPackFolder, AWriterKilledMidwayLeavesThePreviousPackAsItWasAndNothingListed) {
    ScratchFolder scratch;
    const fs::path packs = scratch / "packs";
    {
        StagedPackFolder staged(packs / "pack", nullptr);
        writePack(staged.folder(), "old", 4);
        staged.commit();
    }
    const auto before = contentsOf(packs / "pack");

    // Killed with a complete new pack staged, manifest and all, just before the commit.
    test::ChildProcess writer([&](const auto& ready) {
        StagedPackFolder staged(packs / "pack", anything);
        writePack(staged.folder(), "new", 6);
        ready();
        ::pause();
        return 1;
    });
    ASSERT_TRUE(writer.waitUntilReady(30s));
    writer.kill();
    EXPECT_EQ(writer.wait(), 128 + SIGKILL);

    EXPECT_EQ(contentsOf(packs / "pack"), before);
    const auto listed = PackLibrary::discover(packs, false);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].name, "Pack old");

    // The next writer gets the lock the kernel released and clears what was left.
    {
        StagedPackFolder staged(packs / "pack", anything);
        writePack(staged.folder(), "next", 1);
        staged.commit();
    }
    EXPECT_EQ(entriesOf(packs), std::set<std::string>{"pack"});
    EXPECT_EQ(PackManifest::read(packs / "pack").name, "Pack next");
}

TEST(StagedPackFolder, WritersOfOnePackAtOnceTakeTurnsAndLeaveOneWholePack) {
    ScratchFolder scratch;
    const fs::path target = scratch / "pack";
    std::vector<std::unique_ptr<test::ChildProcess>> writers;
    for (int w = 0; w < 4; ++w) {
        writers.push_back(std::make_unique<test::ChildProcess>([&, w](const auto&) {
            for (int round = 0; round < 5; ++round) {
                StagedPackFolder staged(target, anything);
                writePack(staged.folder(), std::to_string(w) + "." + std::to_string(round), 3 + w);
                staged.commit();
            }
            return 0;
        }));
    }
    for (auto& writer : writers) EXPECT_EQ(writer->wait(), 0);

    // Exactly the files the manifest names, all from the writer that named them.
    const PackManifest manifest = PackManifest::read(target);
    std::set<std::string> expected{"pack.json"};
    for (const std::string& take : manifest.groups.at("alpha").down.at("soft")) expected.insert(take);
    EXPECT_EQ(entriesOf(target), expected);
    const std::string tag = manifest.name.substr(5);
    auto files = contentsOf(target);
    files.erase("pack.json");
    for (const auto& [file, contents] : files) EXPECT_EQ(contents.substr(0, tag.size() + 1), tag + " ") << file;
    EXPECT_EQ(entriesOf(scratch.path()), std::set<std::string>{"pack"});
}

} // namespace
} // namespace tobrin
