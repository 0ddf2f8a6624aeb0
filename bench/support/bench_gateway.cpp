#include "bench_gateway.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "gateway/registry/gw_registry.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_log.h"
#include "smart_frame/smart_frame.h"

namespace bench {

/*
 * Supplied by backend/counting_memory.cpp in the executables that count
 * the heap; absent (weak, NULL) in the end-to-end one, which runs on the
 * production heap unwrapped.
 */
void count_json_allocations() __attribute__((weak));

namespace {

bool g_started = false;

void die(const std::string &why)
{
    std::fprintf(stderr, "bench gateway: %s\n", why.c_str());
    std::exit(2);
}

std::string dp_schema(int n)
{
    const std::string id = "\"id\": " + std::to_string(n);
    switch (n) {
    case 1: return "{" + id + ", \"prop\": \"bool\"}";
    case 3: return "{" + id + ", \"prop\": \"str\", \"max_len\": 32}";
    case 4: return "{" + id + ", \"prop\": \"enum\", \"range\": [\"low\", \"mid\", \"high\"]}";
    default: return "{" + id + ", \"prop\": \"value\", \"min\": 0, \"max\": 1000000, \"step\": 1}";
    }
}

std::string dp_list(int dps)
{
    std::string list = "[";
    for (int n = 1; n <= dps; ++n) {
        list += (n > 1 ? ", " : "") + dp_schema(n);
    }
    return list + "]";
}

std::string dp_value(int n, int variant)
{
    switch (n) {
    case 1: return variant == 0 ? "true" : "false";
    case 3: return variant == 0 ? "\"kitchen\"" : "\"hallway\"";
    case 4: return variant == 0 ? "\"mid\"" : "\"high\"";
    default: return std::to_string(variant == 0 ? 1000 + n : 2000 + n);
    }
}

} // namespace

std::string sub_id(int n)
{
    char id[16];
    std::snprintf(id, sizeof id, "sub%05d", n);
    return id;
}

std::string gateway_description(int subs, int dps)
{
    const std::string schema = dp_list(dps);
    std::string text;
    text.reserve(static_cast<size_t>(subs) * (schema.size() + 48) + 256);
    text += "{\"gateway\": {\"id\": \"";
    text += GW_ID;
    text += "\", \"local_key\": \"bench-local-key-01\", \"dps\": " + dp_list(2) + "}, \"devices\": [";
    for (int n = 0; n < subs; ++n) {
        text += n > 0 ? ", " : "";
        text += "{\"id\": \"" + sub_id(n) + "\", \"bind\": true, \"dps\": " + schema + "}";
    }
    return text + "]}";
}

void start_gateway(int subs, int dps)
{
    if (!g_started) {
        if (count_json_allocations != nullptr) {
            count_json_allocations(); /* before the dispatch thread exists */
        }
    }
    if (gw_registry::loaded()) {
        gw_registry::unload();
    }
    /*
     * Beyond LOAD_AT_ONCE the devices are added one by one: a description
     * of 100,000 devices would be parsed into a cJSON tree of millions of
     * items only to be thrown away.
     */
    constexpr int LOAD_AT_ONCE = 10000;
    gw_registry::LoadError error;
    if (!gw_registry::load_text(gateway_description(std::min(subs, LOAD_AT_ONCE), dps), "bench-gateway", &error)) {
        die("gateway description refused: " + error.text());
    }
    const std::string schema = dp_list(dps);
    for (int n = LOAD_AT_ONCE; n < subs; ++n) {
        if (gw_registry::add_device("{\"id\": \"" + sub_id(n) + "\", \"bind\": true, \"dps\": " + schema + "}",
                                    &error) != RC_OK) {
            die("device refused: " + error.text());
        }
    }
    if (!g_started) {
        uni_log_set_level(0); /* errors only: a benchmark measures the module, not the terminal */
        const OPERATE_RET rc = smart_frame_init();
        if (rc != RC_OK) {
            die("smart_frame_init " + std::to_string(rc));
        }
        g_started = true;
    }
    gw_registry_set_nw_status(GW_NW_CLOUD);
}

std::string report_text(int dps, int variant)
{
    std::string text = "{";
    for (int n = 1; n <= dps; ++n) {
        text += (n > 1 ? "," : "") + ("\"" + std::to_string(n) + "\":") + dp_value(n, variant);
    }
    return text + "}";
}

std::string command_text(const std::string &to, int dps, int variant)
{
    return "{\"cid\":\"" + to + "\",\"ctype\":0,\"dps\":" + report_text(dps, variant) + "}";
}

Percentiles percentiles(std::vector<double> &samples)
{
    Percentiles p;
    if (samples.empty()) {
        return p;
    }
    std::sort(samples.begin(), samples.end());
    p.p50 = samples[samples.size() / 2];
    p.p99 = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
    return p;
}

} // namespace bench
