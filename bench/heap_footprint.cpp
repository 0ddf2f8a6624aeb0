/*
 * Heap the POSIX registry keeps per sub-device and per DP: the C heap in
 * use (mallinfo2) after loading generated gateway descriptions of
 * different sizes, the description text itself already released.
 * Prints a small markdown table; used by scripts/footprint.sh.
 */
#include <malloc.h>

#include <cstdio>
#include <string>

#include "gateway/registry/gw_registry.h"
#include "support/bench_gateway.h"

namespace {

/* Heap in use with subs devices of dps DPs each loaded, in bytes. */
long long heap_with(int subs, int dps)
{
    malloc_trim(0);
    const long long before = static_cast<long long>(mallinfo2().uordblks);
    {
        const std::string text = bench::gateway_description(subs, dps);
        gw_registry::LoadError error;
        if (!gw_registry::load_text(text, "footprint", &error)) {
            std::fprintf(stderr, "refused: %s\n", error.text().c_str());
            return -1;
        }
    }
    const long long used = static_cast<long long>(mallinfo2().uordblks) - before;
    gw_registry::unload();
    return used;
}

} // namespace

/*
 * Per device at 2,000 and 100,000 devices. The string, enum and 16-DP
 * rows only at 2,000: their description of 100,000 devices would be a
 * cJSON tree of millions of items.
 */
int main()
{
    constexpr int SMALL = 2000;
    constexpr int LARGE = 100000;
    /* DP 1 bool; 2 value; 3 string of at most 32; 4 enum of three names (see support/bench_gateway.h) */
    const long long one_bool = heap_with(SMALL, 1);
    const long long with_value = heap_with(SMALL, 2);
    const long long with_str = heap_with(SMALL, 3);
    const long long with_enum = heap_with(SMALL, 4);
    const long long sixteen = heap_with(SMALL, 16);
    const long long large_bool = heap_with(LARGE, 1);
    const long long large_value = heap_with(LARGE, 2);
    const double per = 1.0 / SMALL;
    const double per_large = 1.0 / LARGE;
    std::printf("| measured, bytes per sub-device | %d loaded | %d loaded |\n|---|---|---|\n", SMALL, LARGE);
    std::printf("| one sub-device with one bool DP | %.0f | %.0f |\n", one_bool * per, large_bool * per_large);
    std::printf("| each further value DP | %.0f | %.0f |\n", (with_value - one_bool) * per,
                (large_value - large_bool) * per_large);
    std::printf("| each further string DP (max_len 32) | %.0f | |\n", (with_str - with_value) * per);
    std::printf("| each further enum DP (3 names) | %.0f | |\n", (with_enum - with_str) * per);
    std::printf("| one sub-device with the 16-DP benchmark schema | %.0f | |\n", sixteen * per);
    std::printf("| per DP of that schema, beyond the first | %.0f | |\n", (sixteen - one_bool) * per / 15.0);
    /* machine-readable, for scripts/bench_goals.py */
    std::printf("\nheap_per_device_one_bool %d %.1f\nheap_per_device_one_bool %d %.1f\n", SMALL, one_bool * per,
                LARGE, large_bool * per_large);
    std::printf("heap_per_value_dp %d %.1f\nheap_per_value_dp %d %.1f\n", SMALL, (with_value - one_bool) * per, LARGE,
                (large_value - large_bool) * per_large);
    return 0;
}
