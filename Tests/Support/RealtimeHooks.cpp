// Replaces malloc, calloc, realloc, free, aligned_alloc, posix_memalign (which
// operator new and delete end in) and pthread_mutex_lock for the whole
// program; each counts a call made inside a real-time section, then does the
// real work.
#include "Support/RealtimeHooks.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

thread_local bool insideSection = false;
std::atomic<int> counted{0};

void noteCall() {
    if (insideSection) counted.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

namespace tobrin::test {

void enterRealtimeSection() { insideSection = true; }
void leaveRealtimeSection() { insideSection = false; }
int forbiddenCalls() { return counted.load(); }
void resetForbiddenCalls() { counted = 0; }

} // namespace tobrin::test

extern "C" {
void* malloc(size_t size) {
    noteCall();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    noteCall();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) {
    noteCall();
    return __libc_realloc(pointer, size);
}
void free(void* pointer) {
    noteCall();
    __libc_free(pointer);
}
void* aligned_alloc(size_t alignment, size_t size) {
    noteCall();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
    noteCall();
    *out = __libc_memalign(alignment, size);
    return *out != nullptr ? 0 : ENOMEM;
}
int pthread_mutex_lock(pthread_mutex_t* mutex) {
    noteCall();
    using Lock = int (*)(pthread_mutex_t*);
    static const Lock real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return real(mutex);
}
}
