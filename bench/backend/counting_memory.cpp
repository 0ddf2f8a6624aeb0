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

/*
 * One slot of counters per thread, written only by its thread with plain
 * load + store (no locked read-modify-write: that alone would cost more
 * than some of the paths measured), read by anyone. Slots are never
 * freed, so the totals of ended threads stay counted.
 */
struct Slot {
    std::atomic<uint64_t> mallocs{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> frees{0};
};

constexpr size_t MAX_THREADS = 256;
Slot g_slots[MAX_THREADS];
std::atomic<size_t> g_used{0};
Slot g_overflow; /* shared (and then racy) beyond MAX_THREADS threads; never reached here */

Slot &my_slot()
{
    thread_local Slot *slot = nullptr;
    if (slot == nullptr) {
        const size_t n = g_used.fetch_add(1);
        slot = n < MAX_THREADS ? &g_slots[n] : &g_overflow;
    }
    return *slot;
}

void bump(std::atomic<uint64_t> &counter, uint64_t by)
{
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

} // namespace

extern "C" void *__wrap_Malloc(size_t size)
{
    Slot &slot = my_slot();
    bump(slot.mallocs, 1);
    bump(slot.bytes, size);
    return __real_Malloc(size);
}

extern "C" void __wrap_Free(void *ptr)
{
    if (ptr != nullptr) {
        bump(my_slot().frees, 1);
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
    const size_t used = g_used.load();
    for (size_t n = 0; n <= used && n <= MAX_THREADS; ++n) {
        const Slot &slot = n < used && n < MAX_THREADS ? g_slots[n] : g_overflow;
        now.mallocs += slot.mallocs.load(std::memory_order_relaxed);
        now.bytes += slot.bytes.load(std::memory_order_relaxed);
        now.frees += slot.frees.load(std::memory_order_relaxed);
    }
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
