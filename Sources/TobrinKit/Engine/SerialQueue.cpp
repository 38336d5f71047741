#include "TobrinKit/Engine/SerialQueue.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <pthread.h>

#include <memory>

namespace tobrin {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), keepAlive_(asio::make_work_guard(context_)) {
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
}

SerialQueue::~SerialQueue() { stop(); }

void SerialQueue::stop() {
    if (stopped_.exchange(true)) return;
    keepAlive_.reset();
    context_.stop();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(std::function<void()> work) { asio::post(context_, std::move(work)); }

void SerialQueue::asyncAfter(Clock::duration delay, std::function<void()> work) {
    asyncAt(Clock::now() + delay, std::move(work));
}

void SerialQueue::asyncAt(Clock::time_point deadline, std::function<void()> work) {
    // The timer is only ever touched on the queue; the handler keeps it alive
    // until it fires.
    auto arm = [this, deadline, work = std::move(work)]() mutable {
        auto timer = std::make_shared<asio::steady_timer>(context_, deadline);
        timer->async_wait([timer, work = std::move(work)](const asio::error_code& error) {
            if (!error) work();
        });
    };
    if (isCurrent())
        arm();
    else
        async(std::move(arm));
}

} // namespace tobrin
