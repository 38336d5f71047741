#include "TobrinKit/Packs/Loading/ConfinedFolder.h"

#include "Support/SoundFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>

namespace tobrin {
namespace {

using test::TemporaryFolder;
using Resolution = ConfinedFolder::Resolution;

// What a descriptor reads: tells which file was opened.
std::string contents(const ConfinedFolder::File& file) {
    std::string text(64, '\0');
    const ssize_t length = ::pread(file.descriptor(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

// The contents opened, or "errno N".
std::string outcome(const ConfinedFolder& folder, const std::string& path) {
    try {
        return contents(folder.open(path));
    } catch (const std::system_error& error) {
        return "errno " + std::to_string(error.code().value());
    }
}

std::string errnoText(int error) { return "errno " + std::to_string(error); }

class ConfinedFolderTest : public testing::TestWithParam<Resolution> {};

// One table for the kernel's resolution and for the walk that stands in for
// it on kernels without openat2: both must give the same answers.
TEST_P(ConfinedFolderTest, OpensFilesBeneathAndRefusesEveryWayOut) {
    TemporaryFolder scratch;
    const auto pack = scratch / "pack";
    test::writeText(scratch / "outside.txt", "outside");
    test::writeText(pack / "a.wav", "a");
    test::writeText(pack / "a..wav", "dots");
    test::writeText(pack / "sub" / "b.wav", "b");
    std::filesystem::create_symlink("../a.wav", pack / "sub" / "up.wav");
    std::filesystem::create_symlink("sub", pack / "alias");
    std::filesystem::create_symlink(scratch / "outside.txt", pack / "absolute.wav");
    std::filesystem::create_symlink((pack / "a.wav").string(), pack / "absolute-inside.wav");
    std::filesystem::create_symlink("../outside.txt", pack / "relative.wav");
    std::filesystem::create_symlink("../../outside.txt", pack / "sub" / "deep.wav");
    std::filesystem::create_symlink("..", pack / "sub" / "parent");
    std::filesystem::create_symlink("loop2", pack / "loop1");
    std::filesystem::create_symlink("loop1", pack / "loop2");
    std::filesystem::create_symlink("nothing", pack / "dangling.wav");

    const std::pair<std::string, std::string> cases[] = {
        {"a.wav", "a"},
        {"a..wav", "dots"},
        {"./sub//b.wav", "b"},
        {"sub/up.wav", "a"},
        {"alias/b.wav", "b"},
        {"alias/up.wav", "a"},
        {"sub/../a.wav", "a"},
        {"sub/parent/a.wav", "a"},
        {"absolute.wav", errnoText(EXDEV)},
        {"absolute-inside.wav", errnoText(EXDEV)}, // absolute links are refused even when they point inside
        {"relative.wav", errnoText(EXDEV)},
        {"sub/deep.wav", errnoText(EXDEV)},
        {"sub/parent/../outside.txt", errnoText(EXDEV)},
        {"../outside.txt", errnoText(EXDEV)},
        {"/etc/hostname", errnoText(EXDEV)},
        {"loop1", errnoText(ELOOP)},
        {"missing.wav", errnoText(ENOENT)},
        {"dangling.wav", errnoText(ENOENT)},
        {"a.wav/x", errnoText(ENOTDIR)},
        {"", errnoText(ENOENT)},
        {std::string("a.wav\0/../../outside.txt", 24), errnoText(EINVAL)},
    };
    const ConfinedFolder folder(pack, GetParam());
    for (const auto& [path, expected] : cases) EXPECT_EQ(outcome(folder, path), expected) << '"' << path << '"';
}

// The check and the open are one step against the folder's descriptor: what
// is swapped in after the folder was opened cannot lead anywhere else.
TEST_P(ConfinedFolderTest, SwapsAfterOpeningTheFolderCannotLeadOut) {
    TemporaryFolder scratch;
    test::writeText(scratch / "outside.txt", "outside");
    test::writeText(scratch / "pack" / "a.wav", "a");
    test::writeText(scratch / "elsewhere" / "a.wav", "elsewhere");
    const ConfinedFolder folder(scratch / "pack", GetParam());

    // The file becomes a link out of the folder: refused.
    std::filesystem::create_symlink(scratch / "outside.txt", scratch / "pack" / "link");
    std::filesystem::rename(scratch / "pack" / "link", scratch / "pack" / "a.wav");
    EXPECT_EQ(outcome(folder, "a.wav"), errnoText(EXDEV));

    // The folder's own path now leads elsewhere: files still come from the folder opened.
    test::writeText(scratch / "pack" / "b.wav", "b");
    std::filesystem::rename(scratch / "pack", scratch / "moved");
    std::filesystem::create_directory_symlink(scratch / "elsewhere", scratch / "pack");
    EXPECT_EQ(outcome(folder, "b.wav"), "b");
    EXPECT_EQ(outcome(folder, "a.wav"), errnoText(EXDEV));
}

INSTANTIATE_TEST_SUITE_P(BothResolutions, ConfinedFolderTest, testing::Values(Resolution::automatic, Resolution::walk),
                         [](const testing::TestParamInfo<Resolution>& param) {
                             return param.param == Resolution::automatic ? "Kernel" : "Walk";
                         });

} // namespace
} // namespace tobrin
