/*
 * Counting heap: every live block is known, so a test can prove it leaked
 * nothing, and the n-th allocation can be made to fail. Installed as
 * cJSON's allocator before main, so trees and printed texts count too.
 */
#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "fake_internal.h"

namespace {

struct Heap {
    std::map<void *, size_t> live;
    size_t calls = 0;
    size_t bytes = 0;
    size_t fail_at = 0; /* absolute call number that fails; 0 none */
    bool fired = false;
};

Heap &heap()
{
    static Heap h;
    return h;
}

struct CjsonHooks {
    CjsonHooks()
    {
        cJSON_Hooks hooks = {Malloc, Free};
        cJSON_InitHooks(&hooks);
    }
} install_cjson_hooks;

} // namespace

extern "C" void *Malloc(size_t size)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    Heap &h = heap();
    ++h.calls;
    if (h.fail_at != 0 && h.calls == h.fail_at) {
        h.fired = true;
        return nullptr;
    }
    void *ptr = std::malloc(size == 0 ? 1 : size);
    if (ptr != nullptr) {
        // A fresh block's contents are undefined: fill it with a pattern, as
        // a debugging heap does, so code that relies on zeros fails here.
        std::memset(ptr, 0xA5, size);
        h.live[ptr] = size;
        h.bytes += size;
    }
    return ptr;
}

extern "C" void Free(void *ptr)
{
    if (ptr == nullptr) {
        return;
    }
    {
        std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
        auto it = heap().live.find(ptr);
        if (it == heap().live.end()) {
            std::fprintf(stderr, "fake Free: %p was not allocated by Malloc or is already freed\n", ptr);
            std::abort();
        }
        heap().live.erase(it);
    }
    std::free(ptr);
}

namespace fake {
namespace mem {

size_t live_blocks()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return heap().live.size();
}

size_t live_bytes()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    size_t total = 0;
    for (const auto &block : heap().live) {
        total += block.second;
    }
    return total;
}

size_t alloc_calls()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return heap().calls;
}

size_t alloc_bytes()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return heap().bytes;
}

void fail_nth(size_t n)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    heap().fail_at = n == 0 ? 0 : heap().calls + n;
    heap().fired = false;
}

bool failure_fired()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    return heap().fired;
}

std::string leak_report()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    std::string report;
    for (const auto &block : heap().live) {
        char line[160];
        const unsigned char *bytes = static_cast<const unsigned char *>(block.first);
        std::string preview;
        for (size_t i = 0; i < block.second && i < 48; ++i) {
            preview += (bytes[i] >= 32 && bytes[i] < 127) ? static_cast<char>(bytes[i]) : '.';
        }
        std::snprintf(line, sizeof(line), "  %zu bytes: %s\n", block.second, preview.c_str());
        report += line;
    }
    return report;
}

} // namespace mem

namespace detail {
void reset_memory()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    /* blocks still live belong to a previous scenario; forget them, do not free */
    heap().live.clear();
    heap().calls = 0;
    heap().bytes = 0;
    heap().fail_at = 0;
    heap().fired = false;
}
} // namespace detail
} // namespace fake
