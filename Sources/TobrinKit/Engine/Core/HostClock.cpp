#include "TobrinKit/Engine/Core/HostClock.h"

#include "TobrinKit/Engine/Core/MachTime.h"

namespace tobrin {
namespace {

class MonotonicClock final : public HostClock {
public:
    std::uint64_t now() const override { return MachTime::now(); }
};

} // namespace

std::shared_ptr<HostClock> HostClock::host() {
    static const std::shared_ptr<HostClock> clock = std::make_shared<MonotonicClock>();
    return clock;
}

} // namespace tobrin
