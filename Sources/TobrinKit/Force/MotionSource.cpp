// Choosing the machine's motion source.
#include "TobrinKit/Force/MotionSource.h"

#include "TobrinKit/Force/RecordedMotionSource.h"

#include <cstdlib>

namespace tobrin {

std::unique_ptr<MotionSource> findMotionSource() {
    if (const char* replay = std::getenv("TOBRIN_SENSOR_REPLAY"); replay && *replay) {
        return std::make_unique<RecordedMotionSource>(replay);
    }
    return nullptr;
}

} // namespace tobrin
