#include "TobrinKit/Engine/SerialQueue.h"

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

TEST(SerialQueue, TimersFireInDeadlineOrderNotPostingOrder) {
    SerialQueue queue("test.timers");
    std::vector<int> order;
    const auto start = std::chrono::steady_clock::now();
    std::atomic<long long> lateForFirst{-1};
    queue.asyncAfter(30ms, [&] { order.push_back(3); });
    queue.asyncAfter(10ms, [&] {
        lateForFirst =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
        order.push_back(1);
    });
    queue.asyncAfter(20ms, [&] { order.push_back(2); });
    std::this_thread::sleep_for(60ms);
    queue.sync([] {});
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_GE(lateForFirst.load(), 10'000);
}

TEST(SerialQueue, StopDropsPendingTimersAndLaterSyncRunsInline) {
    std::atomic<int> fired{0};
    SerialQueue queue("test.stop");
    queue.asyncAfter(50ms, [&] { ++fired; });
    queue.stop();
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(fired, 0);
    EXPECT_EQ(queue.sync([] { return 5; }), 5);
}

} // namespace
} // namespace tobrin
