// The registry of key source kinds and the choice between them.
#include "TobrinKit/Input/KeySource.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

namespace tobrin::KeySources {
namespace {

std::mutex& registryLock() {
    static std::mutex lock;
    return lock;
}

std::vector<KeySourceFactory>& list() {
    static std::vector<KeySourceFactory> factories;
    return factories;
}

} // namespace

void add(KeySourceFactory factory) {
    std::lock_guard guard(registryLock());
    auto& factories = list();
    auto same = std::find_if(factories.begin(), factories.end(),
                             [&](const KeySourceFactory& f) { return f.name == factory.name; });
    if (same != factories.end())
        *same = std::move(factory);
    else
        factories.push_back(std::move(factory));
}

std::vector<KeySourceFactory> registered() {
    std::lock_guard guard(registryLock());
    return list();
}

std::vector<KeySourceFactory> candidates(const std::vector<KeySourceFactory>& available, std::string_view forced) {
    std::vector<KeySourceFactory> chosen;
    for (const auto& factory : available) {
        if (!forced.empty() ? factory.name == forced : !factory.suitsSession || factory.suitsSession())
            chosen.push_back(factory);
        if (!forced.empty() && !chosen.empty()) break;
    }
    return chosen;
}

bool isWaylandSession(const char* sessionType, const char* waylandDisplay) {
    if (sessionType && std::string_view(sessionType) == "wayland") return true;
    return waylandDisplay && *waylandDisplay;
}

bool isWaylandSession() { return isWaylandSession(std::getenv("XDG_SESSION_TYPE"), std::getenv("WAYLAND_DISPLAY")); }

} // namespace tobrin::KeySources
