#pragma once
// A host clock that only moves when a test moves it. Code that takes its
// clock from its owner (the serial queue, the conductor) then runs its timers
// exactly when the test advances past their deadlines.

#include "TobrinKit/Engine/Core/HostClock.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

namespace tobrin::test {

class ManualClock final : public HostClock {
public:
    explicit ManualClock(std::uint64_t start = 1'000'000'000'000ULL) : now_(start) {}

    std::uint64_t now() const override { return now_.load(); }
    bool isManual() const override { return true; }

    std::shared_ptr<void> observe(std::function<void()> moved) override {
        auto token = std::make_shared<std::function<void()>>(std::move(moved));
        std::lock_guard guard(lock_);
        observers_.push_back(token);
        return token;
    }

    void advance(std::chrono::nanoseconds by) { set(now() + std::uint64_t(by.count())); }

    // Moves to `ticks` (never backwards) and tells the observers.
    void set(std::uint64_t ticks) {
        if (ticks > now_.load()) now_.store(ticks);
        std::vector<std::shared_ptr<std::function<void()>>> live;
        {
            std::lock_guard guard(lock_);
            for (const auto& observer : observers_)
                if (auto alive = observer.lock()) live.push_back(std::move(alive));
        }
        for (const auto& observer : live) (*observer)();
    }

private:
    std::atomic<std::uint64_t> now_;
    std::mutex lock_;
    std::vector<std::weak_ptr<std::function<void()>>> observers_;
};

} // namespace tobrin::test
