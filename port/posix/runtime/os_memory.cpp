/*
 * Heap of the OS layer: the C heap, installed as cJSON's allocator so
 * that every text cJSON prints is released with Free.
 */
#include <cjson/cJSON.h>

#include <cstdlib>

#include "services/uni_memory.h"
#include "posix_runtime.h"

extern "C" void *Malloc(size_t size)
{
    /* malloc(0) may return NULL, which callers would read as exhaustion */
    return std::malloc(size == 0 ? 1 : size);
}

extern "C" void Free(void *ptr)
{
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

/*
 * This unit is linked whenever anything uses Malloc, so the hooks are in
 * place before main and before any thread exists. cJSON_InitHooks is not
 * thread-safe, which is why it is not left to the first caller.
 */
struct InstallJsonHooks {
    InstallJsonHooks() { uni_memory_install_json_hooks(); }
} install_json_hooks;

} // namespace
