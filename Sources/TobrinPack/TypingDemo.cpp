#include "TypingDemo.h"

#include "Verbs.h"

#include <charconv>
#include <optional>

namespace tobrin::pack {
namespace {

constexpr std::uint64_t scriptSeed = 2024;

std::optional<double> parseNumber(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

float crescendo(int index, int count) {
    if (count < 2) return 1.0f;
    return 0.5f + 2.0f * float(index) / float(count - 1);
}

} // namespace

bool TypingDemo::parse(std::string_view verb, std::span<const std::string_view> arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument != "--text" && argument != "--wpm") {
            positional.push_back(argument);
            continue;
        }
        if (i + 1 >= arguments.size()) {
            printError(std::string(verb) + ": " + std::string(argument) + " needs a value");
            return false;
        }
        const std::string_view value = arguments[++i];
        if (argument == "--text") {
            text = value;
            continue;
        }
        const auto number = parseNumber(value);
        if (!number || !(*number >= 1 && *number <= 1000)) {
            printError(std::string(verb) + ": --wpm takes a number of words a minute from 1 to 1000, not " +
                       std::string(value));
            return false;
        }
        wordsPerMinute = *number;
    }
    return true;
}

std::vector<ScriptedKey> TypingDemo::script() const {
    return OfflineRenderer::typingScript(text, wordsPerMinute, scriptSeed, crescendo);
}

} // namespace tobrin::pack
