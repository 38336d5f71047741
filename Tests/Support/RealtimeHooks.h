#pragma once
// Proof that real-time code never allocates, frees or locks. A program that
// links RealtimeHooks.cpp replaces the allocator entry points and
// pthread_mutex_lock with versions that count the calls made on a thread while
// it is inside a real-time section; the count must stay at zero. Such a
// program is built without sanitizers, which replace the same functions.

namespace tobrin::test {

// Marks the calling thread as inside (or outside) real-time code.
void enterRealtimeSection();
void leaveRealtimeSection();

// Allocations, frees and locks counted inside sections since the last reset.
int forbiddenCalls();
void resetForbiddenCalls();

// A section for the guard's lifetime.
struct RealtimeSection {
    RealtimeSection() { enterRealtimeSection(); }
    ~RealtimeSection() { leaveRealtimeSection(); }
    RealtimeSection(const RealtimeSection&) = delete;
    RealtimeSection& operator=(const RealtimeSection&) = delete;
};

} // namespace tobrin::test
