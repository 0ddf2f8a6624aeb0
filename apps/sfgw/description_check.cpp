#include "description_check.h"

#include "config_files.h"
#include "gateway/registry/gw_registry.h"

namespace sfgw {

bool check_description(const std::string &file, apps::Description *out, std::string *why)
{
    if (!apps::read_description(file, out, why)) {
        return false;
    }
    gw_registry::LoadError error;
    if (!gw_registry::load_layout(out->layout, file, &error)) {
        *why = error.text();
        return false;
    }
    gw_registry::unload();
    return check_config_files(*out, why); /* the TLS files it names, last: the description itself holds */
}

} // namespace sfgw
