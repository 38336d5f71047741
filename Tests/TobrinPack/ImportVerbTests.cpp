// tobrin-pack import, run as a user would, and the imported pack rendered.
#include "Support/CommunityPacks.h"
#include "Support/PackTool.h"

#include <gtest/gtest.h>

namespace tobrin {
namespace {

TEST(ImportVerb, ImportsAPackThatRendersAndLeavesAFolderItDidNotWrite) {
    test::TemporaryFolder scratch;
    test::writeSound(scratch / "src" / "click.wav", {test::keyStroke(20, 80, 900, 44100)}, 44100);
    test::writeText(scratch / "src" / "config.json", R"({"name":"Clicks","key_define_type":"multi",
        "includes_numpad":false,"sound":"click.wav","defines":{"30":"click.wav","57":"gone.wav"}})");

    const auto imported =
        test::packTool("import " + test::quoted(scratch / "src") + " " + test::quoted(scratch / "clicks"));
    ASSERT_EQ(imported.exitStatus, 0) << imported.output;
    EXPECT_NE(imported.output.find("Clicks\t"), std::string::npos) << imported.output;
    EXPECT_NE(imported.output.find("1 keys (1 with the sound the source gives them), 1 sound files"), std::string::npos)
        << imported.output;
    EXPECT_NE(imported.output.find("skipped: \"gone.wav\": No such file or directory"), std::string::npos);

    const auto rendered = test::packTool("render " + test::quoted(scratch / "clicks") + " " +
                                         test::quoted(scratch / "out.wav") + " --text 'a a'");
    ASSERT_EQ(rendered.exitStatus, 0) << rendered.output;
    EXPECT_TRUE(test::readWithSndfile(scratch / "out.wav"));

    test::writeText(scratch / "mine" / "notes.txt", "keep");
    const auto refused =
        test::packTool("import " + test::quoted(scratch / "src") + " " + test::quoted(scratch / "mine"));
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.output.find("is in the way"), std::string::npos) << refused.output;
    EXPECT_EQ(test::readFile(scratch / "mine" / "notes.txt"), "keep");

    const auto broken =
        test::packTool("import " + test::quoted(scratch / "nowhere") + " " + test::quoted(scratch / "x"));
    EXPECT_EQ(broken.exitStatus, 1);
    EXPECT_NE(broken.output.find("cannot import"), std::string::npos) << broken.output;
}

} // namespace
} // namespace tobrin
