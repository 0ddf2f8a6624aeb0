/*
 * Loading the gateway of a test into the registry.
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

bool load_gateway(const GatewayDescription &gw, std::string *why);

} // namespace it

#endif /* IT_GATEWAY_LOADER_H */
