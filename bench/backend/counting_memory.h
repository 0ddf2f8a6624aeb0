/*
 * Counters of Malloc calls and requested bytes around the POSIX backend's
 * heap (every allocation of the smart frame, of the runtime and, once
 * count_json_allocations() ran, of cJSON). Relaxed atomics: any thread may
 * allocate, a benchmark reads the totals between its own steps.
 */
#ifndef BENCH_COUNTING_MEMORY_H
#define BENCH_COUNTING_MEMORY_H

#include <cstdint>

namespace bench {

struct HeapCount {
    uint64_t mallocs = 0;
    uint64_t bytes = 0;
    uint64_t frees = 0;
};

/*
 * Route cJSON's allocations through the counters. Like cJSON_InitHooks,
 * only while no other thread uses cJSON (start_gateway calls it first).
 */
void count_json_allocations();

/* Totals since the start of the process. */
HeapCount heap_count();

/* b - a, field by field. */
HeapCount heap_diff(const HeapCount &a, const HeapCount &b);

} // namespace bench

#endif /* BENCH_COUNTING_MEMORY_H */
