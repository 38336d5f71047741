// Replaces malloc, calloc, realloc, free, aligned_alloc, posix_memalign,
// operator new/delete and pthread_mutex_lock for the whole program; each
// counts a call made inside a real-time section, then does the real work.
#include "Support/RealtimeHooks.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
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

void* operator new(std::size_t size) {
    noteCall();
    if (void* p = __libc_malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    noteCall();
    if (void* p = __libc_memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t alignment) { return operator new(size, alignment); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    noteCall();
    return __libc_malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    noteCall();
    return __libc_memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept {
    noteCall();
    __libc_free(p);
}
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }
void operator delete(void* p, std::align_val_t) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::align_val_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { operator delete(p); }
