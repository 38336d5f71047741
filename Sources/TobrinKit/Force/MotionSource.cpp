// Choosing the machine's motion source.
#include "TobrinKit/Force/MotionSource.h"

#include "TobrinKit/Force/RecordedMotionSource.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace tobrin {
namespace {

std::mutex finderLock;
std::vector<MotionSources::Finder>& finders() {
    static std::vector<MotionSources::Finder> registered;
    return registered;
}

} // namespace

void MotionSources::add(Finder finder) {
    std::lock_guard guard(finderLock);
    auto& list = finders();
    auto same = std::find_if(list.begin(), list.end(), [&](const Finder& f) { return f.name == finder.name; });
    if (same != list.end())
        *same = std::move(finder);
    else
        list.push_back(std::move(finder));
}

std::unique_ptr<MotionSource> findMotionSource() {
    std::vector<MotionSources::Finder> list;
    {
        std::lock_guard guard(finderLock);
        list = finders();
    }
    for (const auto& finder : list)
        if (auto source = finder.find()) return source;
    if (const char* replay = std::getenv("TOBRIN_SENSOR_REPLAY"); replay && *replay) {
        return std::make_unique<RecordedMotionSource>(replay);
    }
    return nullptr;
}

} // namespace tobrin
