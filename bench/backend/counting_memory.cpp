#include "counting_memory.h"

#include <cjson/cJSON.h>

#include <atomic>
#include <cstdlib>

#include "port/posix/posix_runtime.h"
#include "services/uni_memory.h"

namespace {

std::atomic<uint64_t> g_mallocs{0};
std::atomic<uint64_t> g_bytes{0};
std::atomic<uint64_t> g_frees{0};

} // namespace

extern "C" void *Malloc(size_t size)
{
    g_mallocs.fetch_add(1, std::memory_order_relaxed);
    g_bytes.fetch_add(size, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

extern "C" void Free(void *ptr)
{
    if (ptr != nullptr) {
        g_frees.fetch_add(1, std::memory_order_relaxed);
    }
    std::free(ptr);
}

extern "C" void uni_memory_install_json_hooks(void)
{
    cJSON_Hooks hooks;
    hooks.malloc_fn = Malloc;
    hooks.free_fn = Free;
    cJSON_InitHooks(&hooks);
}

namespace {

/* before main and before any thread, as cJSON_InitHooks requires */
struct InstallJsonHooks {
    InstallJsonHooks() { uni_memory_install_json_hooks(); }
} install_json_hooks;

} // namespace

namespace bench {

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
