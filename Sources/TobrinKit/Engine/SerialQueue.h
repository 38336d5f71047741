#pragma once

// A serial work queue: one Asio io_context run by one thread of its own, so
// work posted from any thread runs one item at a time, in posting order, and
// everything that lives "on the queue" needs no lock. Timers (steady_timer on
// context()) fire on the same thread.
//
// Thread contract: async, asyncAfter, sync and isCurrent may be called from
// any thread; the work runs on the queue's thread. stop() and the destructor
// belong to the owner and must not be called from the queue itself.

// Asio's configuration comes with the Tobrin::Asio target.
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace tobrin {

class SerialQueue {
public:
    using Clock = std::chrono::steady_clock;

    // Starts the thread, named after `label` (the first 15 characters).
    explicit SerialQueue(std::string label);
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> work);
    // Runs `work` on the queue once `delay` has passed (a steady_timer).
    void asyncAfter(Clock::duration delay, std::function<void()> work);
    void asyncAt(Clock::time_point deadline, std::function<void()> work);

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

    asio::io_context& context() { return context_; }
    const std::string& label() const { return label_; }

private:
    std::string label_;
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive_;
    std::atomic<std::thread::id> threadId_{};
    std::atomic<bool> stopped_{false};
    std::thread thread_;
};

} // namespace tobrin
