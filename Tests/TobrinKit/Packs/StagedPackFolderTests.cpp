#include "TobrinKit/Packs/PackLibrary.h"
#include "TobrinKit/Packs/StagedPackFolder.h"

#include "Support/ChildProcess.h"
#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

namespace tobrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::TemporaryFolder;

// A pack named `name` with `count` takes, all carrying the name.
void writePack(const fs::path& folder, const std::string& name, int count) {
    test::writeText(folder / "pack.json",
                    R"({"formatVersion": 1, "id": "pack", "kind": "k", "groups": {}, "name": ")" + name + "\"}");
    for (int i = 0; i < count; ++i) test::writeText(folder / (std::to_string(i) + ".wav"), name);
}

TEST(StagedPackFolder, AWriterKilledBeforeItsCommitLeavesThePreviousPackAsItWas) {
    TemporaryFolder scratch;
    const fs::path packs = scratch / "packs", target = packs / "pack";
    {
        StagedPackFolder staged(target, nullptr); // nothing there: nothing to ask about
        writePack(staged.folder(), "old", 4);
        staged.commit();
    }
    const auto before = test::treeOf(target);

    // Killed with a whole new pack staged, manifest and all, just before the commit.
    test::ChildProcess writer([&](const auto& ready) {
        StagedPackFolder staged(target, [](const fs::path&) { return true; });
        writePack(staged.folder(), "new", 6);
        ready();
        ::pause();
        return 1;
    });
    ASSERT_TRUE(writer.waitUntilReady(30s));
    writer.kill();
    EXPECT_EQ(writer.wait(), 128 + SIGKILL);
    EXPECT_EQ(test::treeOf(target), before);
    const auto listed = PackLibrary::discover(packs, false);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].name, "old");

    // The next writer takes the lock the kernel released, clears what was
    // left, and is asked again at its commit.
    bool allowed = true;
    {
        StagedPackFolder staged(target, [&](const fs::path&) { return allowed; });
        writePack(staged.folder(), "next", 1);
        allowed = false;
        EXPECT_THROW(staged.commit(), StagedPackFolder::Refused);
    }
    EXPECT_EQ(test::treeOf(target), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(packs), {}), 1); // the pack, nothing aside
}

} // namespace
} // namespace tobrin
