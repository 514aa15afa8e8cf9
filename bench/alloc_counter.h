// Counts every heap allocation of the thread that asks for it, the C
// libraries' included: the program's malloc family stands in for the C
// library's in every shared library of the process. Include it in one source
// file of a benchmark program linked with -rdynamic.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace lumets::bench {

inline thread_local bool t_counting = false;
inline std::atomic<uint64_t> g_allocations{0};

inline void StartCounting() {
    g_allocations = 0;
    t_counting = true;
}
inline uint64_t StopCounting() {
    t_counting = false;
    return g_allocations.load();
}

}  // namespace lumets::bench

#define LUMETS_EXPORTED __attribute__((visibility("default")))
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);

static void Count() {
    if (lumets::bench::t_counting) {
        lumets::bench::g_allocations.fetch_add(1, std::memory_order_relaxed);
    }
}
LUMETS_EXPORTED void* malloc(size_t size) {
    Count();
    return __libc_malloc(size);
}
LUMETS_EXPORTED void* calloc(size_t count, size_t size) {
    Count();
    return __libc_calloc(count, size);
}
LUMETS_EXPORTED void* realloc(void* p, size_t size) {
    Count();
    return __libc_realloc(p, size);
}
LUMETS_EXPORTED int posix_memalign(void** out, size_t alignment, size_t size) {
    Count();
    *out = __libc_memalign(alignment, size);
    return *out != nullptr || size == 0 ? 0 : ENOMEM;
}
LUMETS_EXPORTED void* aligned_alloc(size_t alignment, size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}
LUMETS_EXPORTED void free(void* p) {
    __libc_free(p);
}
}
