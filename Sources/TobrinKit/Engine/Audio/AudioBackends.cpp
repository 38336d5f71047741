#include "TobrinKit/Engine/Audio/AudioBackend.h"
#include "TobrinKit/Engine/Audio/NullAudioBackend.h"

#include <algorithm>
#include <mutex>

namespace tobrin::AudioBackends {
namespace {

std::mutex& registryLock() {
    static std::mutex lock;
    return lock;
}

// Kinds added at start-up, most preferred first; the null device is not here
// because it always comes last.
std::vector<AudioBackendFactory>& added() {
    static std::vector<AudioBackendFactory> list;
    return list;
}

} // namespace

void add(AudioBackendFactory factory) {
    std::lock_guard guard(registryLock());
    auto& list = added();
    auto same =
        std::find_if(list.begin(), list.end(), [&](const AudioBackendFactory& f) { return f.name == factory.name; });
    if (same != list.end())
        *same = std::move(factory);
    else
        list.push_back(std::move(factory));
}

std::vector<AudioBackendFactory> registered() {
    std::vector<AudioBackendFactory> list;
    {
        std::lock_guard guard(registryLock());
        for (const auto& factory : added())
            if (factory.name != NullAudioBackend::name) list.push_back(factory);
    }
    list.push_back(NullAudioBackend::factory());
    return list;
}

} // namespace tobrin::AudioBackends
