#pragma once

#include "TobrinKit/Engine/OfflineRenderer.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tobrin::pack {

// The demo typing of the render and play verbs: a text at a pace, typed with
// a crescendo from a light touch to a hard strike so that every force layer
// of the pack is heard.
struct TypingDemo {
    std::string text{"The quick brown fox jumps over the lazy dog. Typing sounds like this."};
    double wordsPerMinute = 70;
    // The arguments that are neither option nor option value, in order.
    std::vector<std::string_view> positional;

    // Reads [--text T] [--wpm N] among a verb's arguments. A usage error is
    // printed, naming the verb, and gives false.
    bool parse(std::string_view verb, std::span<const std::string_view> arguments);

    // The keys of the demo, always the same for the same text and pace.
    std::vector<ScriptedKey> script() const;
};

} // namespace tobrin::pack
