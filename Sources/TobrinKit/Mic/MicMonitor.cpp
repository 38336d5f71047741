// The microphone watch's delay logic, on its own serial queue.
#include "TobrinKit/Mic/MicMonitor.h"

#include <utility>

namespace tobrin {

MicMonitor::MicMonitor(std::unique_ptr<MicWatch> watch, Executor runOn, std::shared_ptr<HostClock> clock)
    : watch_(std::move(watch)), runOn_(std::move(runOn)), queue_("app.tobrin.mic", std::move(clock)) {}

MicMonitor::~MicMonitor() {
    stop();
    queue_.stop();
}

void MicMonitor::start() {
    queue_.sync([this] {
        if (running_) return;
        running_ = true;
        ++session_;
        liveSession_->store(session_);
        latest_.reset();
        reported_ = false;
        announced_ = false;
        pendingRelease_ = 0;
        const std::uint64_t session = session_;
        watch_->start([this, session](std::optional<MicActivity> state) {
            queue_.async([this, session, state = std::move(state)]() mutable { receive(session, std::move(state)); });
        });
    });
}

void MicMonitor::stop() {
    // Moved on first: a report already on its way to the owner is dropped.
    liveSession_->store(0);
    queue_.sync([this] {
        if (!running_) return;
        running_ = false;
        // Waits for the watch's thread: no update of this session is posted after.
        watch_->stop();
        latest_.reset();
        pendingRelease_ = 0;
        reported_ = false;
    });
}

void MicMonitor::refresh() {
    queue_.async([this] {
        if (running_) watch_->resync();
    });
}

bool MicMonitor::isRunning() const {
    return queue_.sync([this] { return running_; });
}

std::optional<MicActivity> MicMonitor::current() {
    return queue_.sync([this]() -> std::optional<MicActivity> {
        if (running_) return latest_;
        return watch_->readOnce(std::chrono::seconds(2));
    });
}

void MicMonitor::setOnChange(std::function<void(bool)> onChange) {
    queue_.sync([&] { onChange_ = std::move(onChange); });
}

void MicMonitor::setReleaseDelay(std::chrono::nanoseconds delay) {
    queue_.sync([&] { releaseDelay_ = delay; });
}

void MicMonitor::receive(std::uint64_t session, std::optional<MicActivity> state) {
    if (!running_ || session != session_) return;
    latest_ = std::move(state);
    evaluate();
}

void MicMonitor::evaluate() {
    // Unknown (the server is away): keep what was reported until it answers.
    if (!latest_) return;
    if (latest_->micInUse()) {
        pendingRelease_ = 0;
        if (!reported_) report(true);
    } else if (reported_ && pendingRelease_ == 0) {
        const std::uint64_t release = ++releaseCount_;
        pendingRelease_ = release;
        queue_.asyncAfter(releaseDelay_, [this, release] {
            if (!running_ || pendingRelease_ != release) return; // cancelled, or stopped
            pendingRelease_ = 0;
            // Still unknown when due: the next known state schedules it again.
            if (latest_ && !latest_->micInUse()) report(false);
        });
    }
    // The owner hears the state once when it first becomes known.
    if (!announced_) report(reported_);
}

void MicMonitor::report(bool inUse) {
    reported_ = inUse;
    announced_ = true;
    if (!onChange_) return;
    auto deliver = [onChange = onChange_, live = liveSession_, session = session_, inUse] {
        if (live->load() == session) onChange(inUse);
    };
    if (runOn_)
        runOn_(std::move(deliver));
    else
        deliver();
}

} // namespace tobrin
