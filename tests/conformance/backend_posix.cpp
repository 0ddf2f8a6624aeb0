/* The conformance suite's backend hooks for the POSIX backend. */
#include "backend.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "gateway/registry/gw_registry.h"
#include "port/posix/runtime/posix_runtime.h"

namespace conformance {

const char *backend_name()
{
    return "posix";
}

void load_gateway(const std::string &gw_id, const std::vector<std::string> &sub_ids)
{
    std::string json = R"({"gateway":{"id":")" + gw_id + R"(","dps":[{"id":1,"prop":"bool"}]},"devices":[)";
    for (size_t i = 0; i < sub_ids.size(); ++i) {
        json += (i == 0 ? "" : ",");
        json += R"({"id":")" + sub_ids[i] + R"(","bind":true,"dps":[{"id":1,"prop":"bool"},{"id":2,"prop":"bool"}]})";
    }
    json += "]}";
    gw_registry::LoadError error;
    if (!gw_registry::load_text(json, "conformance.json", &error)) {
        throw std::runtime_error(error.text());
    }
}

void set_cloud_connected(bool connected)
{
    gw_registry_set_nw_status(connected ? GW_NW_CLOUD : GW_NW_LAN);
}

void tear_down()
{
    cmmod_stop();
    gw_registry::unload();
    set_cloud_connected(false); /* as the MQTT client leaves it when it stops */
}

bool run_until(const std::function<bool()> &cond, uint64_t limit_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace conformance
