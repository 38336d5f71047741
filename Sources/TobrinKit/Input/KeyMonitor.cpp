#include "TobrinKit/Input/KeyMonitor.h"

#include <pthread.h>

#include <cstdlib>
#include <utility>

namespace tobrin {
namespace {

std::string forcedByEnvironment() {
    const char* forced = std::getenv("TOBRIN_KEYS");
    return forced ? forced : "";
}

} // namespace

KeyMonitor::KeyMonitor(Handler handler)
    : KeyMonitor(std::move(handler), KeySources::registered(), forcedByEnvironment()) {}

KeyMonitor::KeyMonitor(Handler handler, std::vector<KeySourceFactory> sources, std::string forced)
    : sources_(std::move(sources)), forced_(std::move(forced)), stream_(std::move(handler)) {}

KeyMonitor::~KeyMonitor() { stop(); }

bool KeyMonitor::start() {
    std::lock_guard guard(lock_);
    if (running_.load(std::memory_order_acquire)) return true;
    // A thread whose source was lost has ended on its own.
    if (thread_.joinable()) thread_.join();

    auto kinds = candidates();
    if (kinds.empty()) {
        std::lock_guard state(stateLock_);
        lastError_ = forced_.empty() ? "no key source is available"
                                     : "TOBRIN_KEYS names no key source: \"" + forced_ + "\" (try x11 or evdev)";
        return false;
    }
    std::promise<bool> installed;
    auto opened = installed.get_future();
    thread_ = std::thread([this, kinds = std::move(kinds), &installed]() mutable { run(std::move(kinds), installed); });
    if (opened.get()) return true;
    thread_.join();
    return false;
}

void KeyMonitor::stop() {
    std::lock_guard guard(lock_);
    if (!thread_.joinable()) return;
    {
        std::lock_guard state(stateLock_);
        if (source_) source_->interrupt();
    }
    thread_.join();
    running_.store(false, std::memory_order_release);
}

void KeyMonitor::run(std::vector<KeySourceFactory> kinds, std::promise<bool>& installed) {
    pthread_setname_np(pthread_self(), "Tobrin.KeyMonit"); // 15 characters at most
    stream_.reset();
    std::string errors;
    for (auto& kind : kinds) {
        auto source = kind.create();
        std::string error;
        if (!source->open(error)) {
            errors += (errors.empty() ? "" : "; ") + kind.name + ": " + error;
            continue;
        }
        {
            std::lock_guard state(stateLock_);
            source_ = source.get();
            kind_ = kind;
            lastError_.clear();
        }
        running_.store(true, std::memory_order_release);
        installed.set_value(true); // `installed` is gone once start() returns
        source->run(stream_);
        running_.store(false, std::memory_order_release);
        std::lock_guard state(stateLock_);
        source_ = nullptr;
        return;
    }
    {
        std::lock_guard state(stateLock_);
        lastError_ = errors;
    }
    installed.set_value(false);
}

std::vector<KeySourceFactory> KeyMonitor::candidates() const { return KeySources::candidates(sources_, forced_); }

KeyboardAccess KeyMonitor::access() const {
    const auto kind = sourceKind();
    if (!kind) return KeyboardAccess::denied;
    return kind->access ? kind->access() : KeyboardAccess::granted;
}

std::string KeyMonitor::lastError() const {
    std::lock_guard state(stateLock_);
    return lastError_;
}

std::optional<KeySourceFactory> KeyMonitor::sourceKind() const {
    {
        std::lock_guard state(stateLock_);
        if (source_) return kind_;
    }
    auto kinds = candidates();
    if (kinds.empty()) return std::nullopt;
    return kinds.front();
}

void KeyMonitor::setShortcut(std::optional<Hotkey> hotkey, std::function<void()> pressed) {
    stream_.setShortcut(hotkey, std::move(pressed));
}

} // namespace tobrin
