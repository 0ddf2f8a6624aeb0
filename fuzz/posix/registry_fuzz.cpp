/*
 * The POSIX registry's gateway description loader: any bytes as a
 * description. When one loads, the same bytes are also offered as one more
 * device, the first sub-device is removed and reclaimed, and everything is
 * unloaded, so every run starts from an empty registry. Leaks show through
 * LeakSanitizer (the POSIX backend allocates with the C heap).
 */
#include <chrono>
#include <string>

#include "gateway/registry/gw_registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool once = [] {
        gw_registry::set_grace_period(std::chrono::milliseconds(0));
        return true;
    }();
    (void)once;
    const std::string text(reinterpret_cast<const char *>(data), size);
    gw_registry::LoadError error;
    if (gw_registry::load_text(text, "fuzz.json", &error)) {
        (void)gw_registry::add_device(text, &error);
        GW_CNTL_S *gw = get_gw_cntl();
        DEV_CNTL_N_S *first = gw->dev;
        if (first != nullptr && first->next != nullptr) {
            (void)gw_registry::remove_device(first->next->dev_if.id);
        }
        (void)gw_registry::reclaim();
        gw_registry::unload();
    } else {
        (void)error.text();
    }
    return 0;
}
