/*
 * Bench-only heap of the OS layer: the C heap behind Malloc/Free, with
 * counters of calls and requested bytes, installed as cJSON's allocator
 * like the POSIX backend's own (so every allocation of the smart frame and
 * of cJSON is counted). Relaxed atomics: any thread may allocate, a
 * benchmark reads the totals between its own steps.
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

/* Totals since the start of the process. */
HeapCount heap_count();

/* b - a, field by field. */
HeapCount heap_diff(const HeapCount &a, const HeapCount &b);

} // namespace bench

#endif /* BENCH_COUNTING_MEMORY_H */
