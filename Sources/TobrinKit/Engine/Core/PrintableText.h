#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tobrin {

// Text from outside the program (pack names, file names, lines of a file)
// made safe to print on a terminal: control characters are shown as escapes
// instead of reaching the terminal, where an escape sequence could retitle,
// recolour or clear it. Escaped as \xNN: C0 controls and DEL, bytes that are
// not valid UTF-8; as \uNNNN: C1 controls and the invisible characters that
// reorder or break lines (U+200E, U+200F, U+2028 to U+202E, U+2066 to
// U+2069). Everything else, other UTF-8 letters included, stays as it is.
// Text longer than `limit` bytes is cut there (at a character boundary) and
// ends in "...", so a huge input cannot make a huge message.
std::string printable(std::string_view text, std::size_t limit = std::string_view::npos);

} // namespace tobrin
