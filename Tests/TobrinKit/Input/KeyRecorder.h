#pragma once
// Collects what a key monitor hands its handler, for tests to wait on.

#include "TobrinKit/Engine/Core/KeyEvent.h"

#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tobrin::test {

// A key event without its time, for comparing sequences.
using KeyStep = std::pair<std::uint16_t, KeyAction>;

inline KeyStep down(std::uint16_t code) { return {code, KeyAction::down}; }
inline KeyStep up(std::uint16_t code) { return {code, KeyAction::up}; }

class KeyRecorder {
public:
    std::function<void(const KeyEvent&)> handler() {
        return [this](const KeyEvent& event) {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            std::lock_guard guard(lock_);
            events_.push_back(event);
            threadName_ = name;
        };
    }

    std::vector<KeyEvent> events() const {
        std::lock_guard guard(lock_);
        return events_;
    }
    std::vector<KeyStep> steps() const {
        std::vector<KeyStep> steps;
        for (const auto& event : events()) steps.emplace_back(event.code, event.action);
        return steps;
    }
    bool waitForCount(std::size_t count) const {
        return eventually([&] { return events().size() >= count; });
    }
    bool waitForSteps(const std::vector<KeyStep>& expected) const {
        return eventually([&] { return steps() == expected; });
    }
    // The handler ran on the monitor's thread, and every event was stamped
    // in order on the monotonic clock between `before` and `after`.
    void expectStampedBetween(std::uint64_t before, std::uint64_t after) const {
        const auto all = events();
        std::lock_guard guard(lock_);
        EXPECT_EQ(threadName_, "Tobrin.KeyMonit");
        for (std::size_t i = 0; i < all.size(); ++i) {
            EXPECT_GE(all[i].time, i ? all[i - 1].time : before);
            EXPECT_LE(all[i].time, after);
        }
    }
    void clear() {
        std::lock_guard guard(lock_);
        events_.clear();
    }

private:
    mutable std::mutex lock_;
    std::vector<KeyEvent> events_;
    std::string threadName_; // the thread the handler last ran on
};

} // namespace tobrin::test
