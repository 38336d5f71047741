#pragma once

// A serial work queue: one Asio io_context run by one thread of its own, so
// work posted from any thread runs one item at a time, in posting order, and
// everything that lives "on the queue" needs no lock. Timers fire on the same
// thread, at deadlines read from the clock the owner gives the queue: the host
// clock in the product, a clock moved by hand in tests.
//
// Thread contract: async, asyncAfter, sync and isCurrent may be called from
// any thread; the work runs on the queue's thread. stop() and the destructor
// belong to the owner and must not be called from the queue itself.

// Asio's configuration comes with the Tobrin::Asio target.
#include "TobrinKit/Engine/Core/HostClock.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace tobrin {

class SerialQueue {
public:
    // Starts the thread, named after `label` (the first 15 characters).
    explicit SerialQueue(std::string label, std::shared_ptr<HostClock> clock = HostClock::host());
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> work);
    // Runs `work` on the queue once the clock has passed `deadline` (host
    // ticks) or `delay` from now. Timers due together run in deadline order,
    // then in the order they were set.
    void asyncAt(std::uint64_t deadline, std::function<void()> work);
    void asyncAfter(std::chrono::nanoseconds delay, std::function<void()> work);

    // Runs `work` on the queue and waits for its result. Called on the queue,
    // or after stop(), it runs inline.
    template <typename Work>
    auto sync(Work&& work) -> std::invoke_result_t<Work&> {
        using Result = std::invoke_result_t<Work&>;
        if (isCurrent() || stopped_.load(std::memory_order_acquire)) return work();
        std::packaged_task<Result()> task(std::ref(work));
        auto result = task.get_future();
        async([&task] { task(); });
        return result.get();
    }

    // True on the queue's own thread.
    bool isCurrent() const { return std::this_thread::get_id() == threadId_.load(); }

    // Ends the thread after the work it is running; queued work and pending
    // timers are dropped without running. Idempotent.
    void stop();

    const HostClock& clock() const { return *clock_; }
    const std::string& label() const { return label_; }

private:
    void runDueTimers();
    void armWakeUp();

    std::string label_;
    std::shared_ptr<HostClock> clock_;
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive_;
    // Queue state: pending timers by deadline, and the one Asio timer that
    // wakes the queue for the earliest of them (on the host clock only).
    std::multimap<std::uint64_t, std::function<void()>> timers_;
    asio::steady_timer wakeUp_;
    std::shared_ptr<void> clockObservation_;
    std::atomic<std::thread::id> threadId_{};
    std::atomic<bool> stopped_{false};
    std::thread thread_;
};

} // namespace tobrin
