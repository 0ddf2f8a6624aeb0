/*
 * The counting is wrapped around the POSIX backend's own heap by the
 * linker (--wrap=Malloc --wrap=Free on the benchmark executables): every
 * call of the module and the runtime lands here first. cJSON's hooks are
 * set inside the heap's own unit, where the linker does not wrap, so
 * count_json_allocations() points them at the wrappers.
 */
#include "counting_memory.h"

#include <cjson/cJSON.h>

#include <atomic>
#include <cstddef>

extern "C" void *__real_Malloc(size_t size);
extern "C" void __real_Free(void *ptr);

namespace {

std::atomic<uint64_t> g_mallocs{0};
std::atomic<uint64_t> g_bytes{0};
std::atomic<uint64_t> g_frees{0};

} // namespace

extern "C" void *__wrap_Malloc(size_t size)
{
    g_mallocs.fetch_add(1, std::memory_order_relaxed);
    g_bytes.fetch_add(size, std::memory_order_relaxed);
    return __real_Malloc(size);
}

extern "C" void __wrap_Free(void *ptr)
{
    if (ptr != nullptr) {
        g_frees.fetch_add(1, std::memory_order_relaxed);
    }
    __real_Free(ptr);
}

namespace bench {

void count_json_allocations()
{
    cJSON_Hooks hooks{__wrap_Malloc, __wrap_Free};
    cJSON_InitHooks(&hooks);
}

HeapCount heap_count()
{
    HeapCount now;
    now.mallocs = g_mallocs.load(std::memory_order_relaxed);
    now.bytes = g_bytes.load(std::memory_order_relaxed);
    now.frees = g_frees.load(std::memory_order_relaxed);
    return now;
}

HeapCount heap_diff(const HeapCount &a, const HeapCount &b)
{
    HeapCount d;
    d.mallocs = b.mallocs - a.mallocs;
    d.bytes = b.bytes - a.bytes;
    d.frees = b.frees - a.frees;
    return d;
}

} // namespace bench
