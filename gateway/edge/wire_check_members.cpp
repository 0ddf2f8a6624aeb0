/*
 * The rules of group, scene and query commands: types, the documented
 * limits, and (queries only) the devices and DPs they name.
 */
#include <cstring>
#include <utility>
#include <vector>

#include "smart_frame/dp_lookup.h"
#include "smart_frame/inbound/member_oper.h"
#include "wire_check.h"
#include "wire_json.h"

namespace sf_wire {
namespace check {

namespace {

/* Longest "gid" and "sid": the registry's group and scene tables hold no more. */
constexpr size_t GID_MAX = GRP_ID_LEN;
constexpr size_t SID_MAX = SCENE_ID_LEN;
/* Most ids in a query's "cids" and "dpids": the module's bound for groups and scenes, and the DP numbers. */
constexpr int QUERY_MAX_IDS = sf::MEMBER_OPER_MAX_IDS;
constexpr int QUERY_MAX_DPIDS = DEV_DP_MAX;

/* A non-empty string of at most max bytes under key; what names it in the refusal. */
bool check_id_text(const cJSON *doc, const char *key, size_t max, Refusal *why)
{
    const cJSON *item = cJSON_GetObjectItem(doc, key);
    if (!cJSON_IsString(item) || item->valuestring[0] == '\0') {
        return fail(why, "bad_shape", std::string("\"") + key + "\" must be a non-empty string");
    }
    if (std::strlen(item->valuestring) > max) {
        return fail(why, "too_long", std::string("\"") + key + "\" " + printed(item) + " is longer than " +
                                         std::to_string(max) + " characters");
    }
    return true;
}

/* An array of 1..QUERY_MAX_IDS strings (the module's bound for groups and scenes). */
bool check_id_list(const cJSON *cids, Refusal *why)
{
    if (!cJSON_IsArray(cids)) {
        return fail(why, "bad_shape", "\"cids\" must be an array of device ids");
    }
    const int count = cJSON_GetArraySize(cids);
    if (count < 1) {
        return fail(why, "bad_shape", "\"cids\" must list at least one device");
    }
    if (count > sf::MEMBER_OPER_MAX_IDS) {
        return fail(why, "too_many_ids", "\"cids\" lists " + std::to_string(count) + " devices, at most " +
                                             std::to_string(sf::MEMBER_OPER_MAX_IDS));
    }
    for (const cJSON *id = cids->child; id != nullptr; id = id->next) {
        if (!cJSON_IsString(id)) {
            return fail(why, "bad_device_id", "every \"cids\" entry must be a string, got " + printed(id), printed(id));
        }
    }
    return true;
}

} // namespace

bool member_command(const cJSON *doc, bool scene, Refusal *why)
{
    const cJSON *action = cJSON_GetObjectItem(doc, "action");
    long long value = -1;
    if (!integral(action, &value) || (value != 0 && value != 1)) {
        return fail(why, "bad_shape", "\"action\" must be 0 (add) or 1 (remove), got " +
                                          (action != nullptr ? printed(action) : std::string("nothing")));
    }
    return check_id_list(cJSON_GetObjectItem(doc, "cids"), why) && check_id_text(doc, "gid", GID_MAX, why) &&
           (!scene || check_id_text(doc, "sid", SID_MAX, why));
}

bool query(const cJSON *doc, Refusal *why)
{
    /* the channels read a query's keys in exact case (wire_commands.cpp), unlike the module's commands */
    const cJSON *cids = cJSON_GetObjectItemCaseSensitive(doc, "cids");
    const cJSON *dpids = cJSON_GetObjectItemCaseSensitive(doc, "dpids");
    if (!cJSON_IsArray(dpids) || (cids != nullptr && !cJSON_IsNull(cids) && !cJSON_IsArray(cids))) {
        return fail(why, "bad_shape", "\"dpids\" must be an array and \"cids\" an array or null");
    }
    if (cJSON_GetArraySize(dpids) > QUERY_MAX_DPIDS) {
        return fail(why, "too_many_ids", "\"dpids\" lists " + std::to_string(cJSON_GetArraySize(dpids)) +
                                             " DPs, at most " + std::to_string(QUERY_MAX_DPIDS));
    }
    for (const cJSON *dp = dpids->child; dp != nullptr; dp = dp->next) {
        long long n = 0;
        if (!integral(dp, &n) || n < 1 || n > DEV_DP_MAX) {
            return fail(why, "bad_dp_key", "every \"dpids\" entry must be a number from 1 to 255, got " + printed(dp), "",
                        cJSON_IsString(dp) ? dp->valuestring : printed(dp));
        }
    }
    std::vector<std::pair<DEV_CNTL_N_S *, std::string>> devices;
    if (cids == nullptr || cJSON_IsNull(cids)) {
        devices.emplace_back(get_gw_dev_cntl(), get_gw_cntl()->gw_if.id);
    } else {
        if (cJSON_GetArraySize(cids) > QUERY_MAX_IDS) {
            return fail(why, "too_many_ids", "\"cids\" lists " + std::to_string(cJSON_GetArraySize(cids)) +
                                                 " devices, at most " + std::to_string(QUERY_MAX_IDS));
        }
        if (cJSON_GetArraySize(cids) == 0) {
            return fail(why, "bad_shape", "\"cids\" must list at least one device (or be null for the gateway)");
        }
        for (const cJSON *id = cids->child; id != nullptr; id = id->next) {
            if (!cJSON_IsString(id)) {
                return fail(why, "bad_device_id", "every \"cids\" entry must be a string, got " + printed(id),
                            printed(id));
            }
            DEV_CNTL_N_S *node = device_named(id->valuestring);
            if (node == nullptr) {
                return fail(why, "unknown_device", "unknown device " + printed(id), printed(id));
            }
            devices.emplace_back(node, id->valuestring);
        }
    }
    TableLock hold;
    for (const auto &device : devices) {
        if (device.first == nullptr) {
            return fail(why, "unknown_device", "the gateway has no device of its own");
        }
        for (const cJSON *dp = dpids->child; dp != nullptr; dp = dp->next) {
            if (__locate_dp_ctl_by_dpid(device.first, dp->valueint) == nullptr) {
                return fail(why, "unknown_dp", "device " + device.second + " has no DP " + printed(dp),
                            quote(device.second.data(), device.second.size()), printed(dp));
            }
        }
    }
    return true;
}

} // namespace check
} // namespace sf_wire
