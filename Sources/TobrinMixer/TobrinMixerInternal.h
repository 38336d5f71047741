// Not part of the public interface: lets tests pin mixers created afterwards to
// the portable loops, so both the portable and the vector paths are checked
// against the reference on machines that have the vector unit.
#pragma once

extern "C" {
extern bool tobrin_mixer_portable_only;
}
