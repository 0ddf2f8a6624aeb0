#include "page_description.h"

#include <cjson/cJSON.h>

#include <memory>

namespace sfcloud {

namespace {

/* One DP as the page reads it: only the keys that mean something for its type. */
cJSON *dp_json(const apps::DpSchema &dp)
{
    cJSON *out = cJSON_CreateObject();
    cJSON_AddNumberToObject(out, "id", dp.id);
    if (!dp.name.empty()) {
        cJSON_AddStringToObject(out, "name", dp.name.c_str());
    }
    cJSON_AddStringToObject(out, "mode", dp.mode.c_str());
    cJSON_AddStringToObject(out, "type", dp.type.c_str());
    if (dp.type != "obj") {
        return out;
    }
    cJSON_AddStringToObject(out, "prop", dp.prop.c_str());
    if (dp.prop == "value") {
        cJSON_AddNumberToObject(out, "min", static_cast<double>(dp.min));
        cJSON_AddNumberToObject(out, "max", static_cast<double>(dp.max));
        cJSON_AddNumberToObject(out, "step", dp.step);
        cJSON_AddNumberToObject(out, "scale", dp.scale);
    } else if (dp.prop == "str" || dp.prop == "bitmap") {
        cJSON_AddNumberToObject(out, "max_len", static_cast<double>(dp.max_len));
    } else if (dp.prop == "enum") {
        cJSON *range = cJSON_AddArrayToObject(out, "range");
        for (const std::string &name : dp.range) {
            cJSON_AddItemToArray(range, cJSON_CreateString(name.c_str()));
        }
    }
    return out;
}

cJSON *device_json(const apps::DeviceSchema &device)
{
    cJSON *out = cJSON_CreateObject();
    cJSON_AddStringToObject(out, "id", device.id.c_str());
    cJSON *dps = cJSON_AddArrayToObject(out, "dps");
    for (const apps::DpSchema &dp : device.dps) {
        cJSON_AddItemToArray(dps, dp_json(dp));
    }
    return out;
}

} // namespace

/*
 * Built from the description as it was read, the gateway's own device first:
 * the file is not parsed again, and only names and schemas go out, so no
 * key or credential can slip in through a section added later.
 */
std::string page_description(const apps::Description *names)
{
    if (names == nullptr || names->devices.empty()) {
        return "";
    }
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> doc(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddItemToObject(doc.get(), "gateway", device_json(names->devices.front().schema));
    cJSON *devices = cJSON_AddArrayToObject(doc.get(), "devices");
    for (size_t i = 1; i < names->devices.size(); ++i) {
        cJSON_AddItemToArray(devices, device_json(names->devices[i].schema));
    }
    cJSON_AddStringToObject(doc.get(), "topic_root", names->mqtt.topic_root.c_str());
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(doc.get()), cJSON_free);
    return text ? std::string(text.get()) : std::string();
}

} // namespace sfcloud
