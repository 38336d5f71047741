#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tobrin {

// Writing whole files without harming what is already there: how the pack
// writers and the tools put manifests and audio on disk. Stateless; safe from
// any thread.
namespace OutputFile {

// Writes `bytes` as the whole content of `file`, by what is at that path now:
// - nothing, a regular file or a symbolic link to anything but a FIFO or a
//   character device: the bytes go to a new temporary file beside it (see
//   createTemporary) that is flushed to the disk and renamed over the path,
//   so a reader sees the old file or the new one, never part of either. A
//   replaced regular file keeps its permission bits and, where the process
//   may set them, its owner and group. A link is replaced, not followed: a
//   link planted at the path never redirects the write to another file.
// - a FIFO or a character device (/dev/null, a terminal, a pipe a program
//   reads), directly or through a link: written to directly; the node stays.
// - a folder, a socket or a block device: refused.
// Throws std::filesystem::filesystem_error naming the path and the reason.
void write(const std::filesystem::path& file, std::span<const std::uint8_t> bytes);

// A new, empty file in `folder` under a fresh name: `prefix` followed by
// random letters. It is created exclusively (O_CREAT | O_EXCL | O_NOFOLLOW),
// so an existing file or a link planted at the name is never opened; a name
// that is taken is replaced by another. `mode` is filtered by the umask as
// for any new file. The caller owns the descriptor (close-on-exec).
struct Temporary {
    int descriptor = -1;
    std::filesystem::path path;
};
Temporary createTemporary(const std::filesystem::path& folder, std::string_view prefix, mode_t mode);

// `count` random lowercase letters and digits from the kernel's generator,
// for names that another process cannot guess in advance.
std::string randomName(std::size_t count);

} // namespace OutputFile
} // namespace tobrin
