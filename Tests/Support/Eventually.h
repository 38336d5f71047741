#pragma once
// Waiting on work other threads do: polls a condition until it holds or the
// time runs out, so tests of threaded parts need no fixed sleeps.

#include <chrono>
#include <thread>

namespace tobrin::test {

template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds timeout = std::chrono::milliseconds(3000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (predicate()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return predicate();
}

} // namespace tobrin::test
