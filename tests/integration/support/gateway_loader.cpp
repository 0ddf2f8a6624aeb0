/*
 * The test's gateway as a gateway description (docs/gateway-description.md),
 * loaded by the POSIX registry.
 */
#include "gateway_loader.h"

#include <map>

#include "gateway/registry/gw_registry.h"

namespace it {

namespace {

std::map<std::string, std::string> g_extra_dps;

std::string dps_of(const DeviceShape &device)
{
    std::string dps = "[";
    const int total = device.bool_dps + device.value_dps;
    for (int i = 1; i <= total; ++i) {
        dps += "{\"id\":" + std::to_string(i) +
               (i <= device.bool_dps ? ",\"prop\":\"bool\"}" : ",\"prop\":\"value\",\"min\":0,\"max\":100000}");
        dps += i < total ? "," : "";
    }
    const auto extra = g_extra_dps.find(device.id);
    if (extra != g_extra_dps.end()) {
        dps += (total > 0 ? "," : "") + extra->second;
    }
    return dps + "]";
}

} // namespace

void add_device_dps(const std::string &id, const std::string &dp_objects) { g_extra_dps[id] = dp_objects; }

bool load_gateway(const GatewayDescription &gw, std::string *why)
{
    std::string text = "{\"gateway\":{\"id\":\"" + gw.gw_id + "\",\"local_key\":\"" + gw.local_key +
                       "\",\"dps\":" + dps_of(gw.devices.front()) + "},\"devices\":[";
    for (size_t i = 1; i < gw.devices.size(); ++i) {
        text += "{\"id\":\"" + gw.devices[i].id + "\",\"dps\":" + dps_of(gw.devices[i]) + "}";
        text += i + 1 < gw.devices.size() ? "," : "";
    }
    text += "]}";
    gw_registry::LoadError error;
    if (!gw_registry::load_text(text, "integration gateway", &error)) {
        *why = error.text();
        return false;
    }
    return true;
}

} // namespace it
