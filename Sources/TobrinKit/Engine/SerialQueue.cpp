#include "TobrinKit/Engine/SerialQueue.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <pthread.h>

#include <algorithm>
#include <memory>

namespace tobrin {

SerialQueue::SerialQueue(std::string label, std::shared_ptr<HostClock> clock)
    : label_(std::move(label)), clock_(std::move(clock)), keepAlive_(asio::make_work_guard(context_)),
      wakeUp_(context_) {
    std::promise<void> started;
    auto ready = started.get_future();
    thread_ = std::thread([this, &started] {
        pthread_setname_np(pthread_self(), label_.substr(0, 15).c_str());
        threadId_.store(std::this_thread::get_id());
        started.set_value();
        context_.run();
    });
    // isCurrent() must be right from the first post on.
    ready.wait();
    if (clock_->isManual()) clockObservation_ = clock_->observe([this] { async([this] { runDueTimers(); }); });
}

SerialQueue::~SerialQueue() { stop(); }

void SerialQueue::stop() {
    if (stopped_.exchange(true)) return;
    clockObservation_.reset();
    keepAlive_.reset();
    context_.stop();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(std::function<void()> work) { asio::post(context_, std::move(work)); }

void SerialQueue::asyncAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
    asyncAt(clock_->now() + std::uint64_t(std::max<std::int64_t>(delay.count(), 0)), std::move(work));
}

void SerialQueue::asyncAt(std::uint64_t deadline, std::function<void()> work) {
    auto add = [this, deadline, work = std::move(work)]() mutable {
        const bool earliest = timers_.empty() || deadline < timers_.begin()->first;
        timers_.emplace(deadline, std::move(work));
        if (earliest) armWakeUp();
    };
    if (isCurrent())
        add();
    else
        async(std::move(add));
}

void SerialQueue::runDueTimers() {
    // Work may add timers, even ones already due: they run in this same pass.
    while (!timers_.empty() && timers_.begin()->first <= clock_->now()) {
        auto work = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        work();
    }
    armWakeUp();
}

void SerialQueue::armWakeUp() {
    // A clock moved by hand wakes the queue through its observation instead.
    if (timers_.empty() || clock_->isManual()) return;
    // Host ticks are CLOCK_MONOTONIC nanoseconds, the clock steady_clock reads.
    const std::chrono::steady_clock::time_point at{std::chrono::nanoseconds(timers_.begin()->first)};
    wakeUp_.expires_at(at); // cancels the wait for a later deadline, if any
    wakeUp_.async_wait([this](const asio::error_code& error) {
        if (!error) runDueTimers();
    });
}

} // namespace tobrin
