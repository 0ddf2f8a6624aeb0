/*
 * The gateway description of a test, in the registry's file format
 * (docs/gateway-description.md), and its loading into the registry.
 */
#ifndef IT_GATEWAY_LOADER_H
#define IT_GATEWAY_LOADER_H

#include <string>
#include <vector>

#include "gateway.h"

namespace it {

struct GatewayDescription {
    std::string gw_id;
    std::string local_key;
    std::vector<DeviceShape> devices; /* the first is the gateway's own device */
};

std::string describe(const GatewayDescription &gw);

/* Load the text into the registry. */
bool load_description(const std::string &text, std::string *why);

} // namespace it

#endif /* IT_GATEWAY_LOADER_H */
