#include "TobrinKit/Engine/SerialQueue.h"

#include "Support/ManualClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace tobrin {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsWorkFromManyThreadsOneAtATimeInEachThreadsOrder) {
    SerialQueue queue("test.serial");
    constexpr int threads = 4, perThread = 500;
    std::vector<std::vector<int>> seen(threads);
    int inside = 0, overlaps = 0;
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t)
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                queue.async([&, t, i] {
                    if (++inside != 1) ++overlaps;
                    seen[std::size_t(t)].push_back(i); // unguarded: only the queue touches it
                    --inside;
                });
        });
    for (auto& poster : posters) poster.join();
    queue.sync([] {});
    EXPECT_EQ(overlaps, 0);
    for (const auto& list : seen) {
        ASSERT_EQ(list.size(), std::size_t(perThread));
        for (int i = 0; i < perThread; ++i) EXPECT_EQ(list[std::size_t(i)], i);
    }
}

TEST(SerialQueue, SyncReturnsTheResultAndRunsInlineOnTheQueue) {
    SerialQueue queue("test.sync");
    EXPECT_FALSE(queue.isCurrent());
    const auto outer = queue.sync([&] {
        // A nested sync would deadlock if it waited for the queue.
        return queue.sync([&] { return queue.isCurrent() ? 7 : -1; }) * 6;
    });
    EXPECT_EQ(outer, 42);
}

TEST(SerialQueue, TimersFireInDeadlineOrderOnlyOnceTheClockHasPassedThem) {
    auto clock = std::make_shared<test::ManualClock>();
    SerialQueue queue("test.timers", clock);
    std::vector<int> order;
    queue.asyncAfter(30ms, [&] { order.push_back(3); });
    queue.asyncAfter(10ms, [&] {
        order.push_back(1);
        // Due at once (now is 20 ms): runs in the same pass, after the 20 ms
        // timers set before it.
        queue.asyncAfter(0ms, [&] { order.push_back(11); });
    });
    queue.asyncAfter(20ms, [&] { order.push_back(2); });
    queue.asyncAfter(20ms, [&] { order.push_back(22); }); // same deadline: in the order set
    auto seen = [&] { return queue.sync([&] { return order; }); };

    clock->advance(9ms);
    EXPECT_EQ(seen(), (std::vector<int>{}));
    clock->advance(11ms);
    EXPECT_EQ(seen(), (std::vector<int>{1, 2, 22, 11}));
    clock->advance(10ms);
    EXPECT_EQ(seen(), (std::vector<int>{1, 2, 22, 11, 3}));
}

TEST(SerialQueue, HostClockTimerFiresNoEarlierThanItsDeadline) {
    SerialQueue queue("test.host");
    std::promise<std::uint64_t> fired;
    const std::uint64_t deadline = queue.clock().now() + 5'000'000;
    queue.asyncAt(deadline, [&] { fired.set_value(queue.clock().now()); });
    EXPECT_GE(fired.get_future().get(), deadline);
}

TEST(SerialQueue, StopDropsPendingTimersAndLaterSyncRunsInline) {
    auto clock = std::make_shared<test::ManualClock>();
    std::atomic<int> fired{0};
    SerialQueue queue("test.stop", clock);
    queue.asyncAfter(50ms, [&] { ++fired; });
    queue.stop();
    clock->advance(80ms);
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(queue.sync([] { return 5; }), 5);
}

} // namespace
} // namespace tobrin
