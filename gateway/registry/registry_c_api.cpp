// The registry's loader for C programs (gw_registry.h, extern "C" part):
// the same load and unload as the C++ entry points, with the error text
// copied into the caller's buffer.
#include <cstring>

#include "gw_registry.h"

extern "C" OPERATE_RET gw_registry_load_file(const CHAR_T *file, CHAR_T *why, UINT_T why_len)
{
    gw_registry::LoadError error;
    if (file != nullptr && gw_registry::load_file(file, &error)) {
        return RC_OK;
    }
    if (why != nullptr && why_len > 0) {
        const std::string text = file == nullptr ? std::string("no file given") : error.text();
        const size_t n = text.size() < why_len - 1 ? text.size() : why_len - 1;
        std::memcpy(why, text.data(), n);
        why[n] = '\0';
    }
    return RC_BAD_PARAM;
}

extern "C" void gw_registry_unload(void) { gw_registry::unload(); }
