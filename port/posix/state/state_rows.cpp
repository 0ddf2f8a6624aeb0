/*
 * The writer's copy of DP tables and the restore at start (state_rows.h).
 */
#include "state_rows.h"

#include <cstring>
#include <string>
#include <unordered_map>

#include "cloud_defs/gw_intf.h"
#include "services/uni_mutex.h"

namespace sf_state {

namespace {

/* One DP as copied under dev_mutex: plain data, and the texts its pointers lead to. */
struct Copied {
    size_t dev;   /* index of the device's id */
    DP_CNTL_S dp;     /* its pointers are not followed once dev_mutex is released */
    std::string text;
};

class DevLock {
public:
    DevLock() : mutex_(get_gw_cntl()->dev_mutex) { MutexLock(mutex_); }
    ~DevLock() { MutexUnLock(mutex_); }
    DevLock(const DevLock &) = delete;
    DevLock &operator=(const DevLock &) = delete;

private:
    MUTEX_HANDLE mutex_;
};

bool stored_kind(const DP_CNTL_S &dp) { return dp.dp_desc.type == DP_TYPE_OBJ; }

/* The text a string or enum DP holds; "" for the others. dev_mutex held. */
std::string text_of(const DP_CNTL_S &dp)
{
    if (dp.dp_desc.prop_tp == PROP_STR) {
        return dp.prop.prop_str.value != nullptr ? dp.prop.prop_str.value : "";
    }
    if (dp.dp_desc.prop_tp == PROP_ENUM) {
        const DP_PROP_ENUM_S &e = dp.prop.prop_enum;
        return e.value >= 0 && e.value < e.cnt && e.pp_enum[e.value] != nullptr ? e.pp_enum[e.value] : "";
    }
    return std::string();
}

long long number_of(const DP_CNTL_S &dp)
{
    switch (dp.dp_desc.prop_tp) {
    case PROP_BOOL:
        return dp.prop.prop_bool.value;
    case PROP_VALUE:
        return dp.prop.prop_value.value;
    case PROP_BITMAP:
        return dp.prop.prop_bitmap.value;
    default:
        return 0;
    }
}

/* Fits the DP's limits: then the value is written in. dev_mutex held. */
bool put_value(DP_CNTL_S &dp, const Row &row)
{
    switch (dp.dp_desc.prop_tp) {
    case PROP_BOOL:
        if (row.num != 0 && row.num != 1) {
            return false;
        }
        dp.prop.prop_bool.value = static_cast<BOOL_T>(row.num);
        return true;
    case PROP_VALUE:
        if (row.num < dp.prop.prop_value.min || row.num > dp.prop.prop_value.max) {
            return false;
        }
        dp.prop.prop_value.value = static_cast<INT_T>(row.num);
        return true;
    case PROP_BITMAP:
        if (row.num < 0 || (dp.prop.prop_bitmap.max_len < 32 && (row.num >> dp.prop.prop_bitmap.max_len) != 0) ||
            row.num > 0xFFFFFFFFLL) {
            return false;
        }
        dp.prop.prop_bitmap.value = static_cast<UINT_T>(row.num);
        return true;
    case PROP_STR:
        if (dp.prop.prop_str.value == nullptr || row.text.size() > static_cast<size_t>(dp.prop.prop_str.max_len)) {
            return false;
        }
        std::memcpy(dp.prop.prop_str.value, row.text.c_str(), row.text.size() + 1);
        return true;
    case PROP_ENUM:
        for (INT_T i = 0; i < dp.prop.prop_enum.cnt; ++i) {
            if (dp.prop.prop_enum.pp_enum[i] != nullptr && row.text == dp.prop.prop_enum.pp_enum[i]) {
                dp.prop.prop_enum.value = i;
                return true;
            }
        }
        return false;
    default:
        return false;
    }
}

DP_PV_STAT_E restored_pv_stat(int stored)
{
    if (stored == PV_STAT_CLOUD || stored == PV_STAT_INVALID) {
        return static_cast<DP_PV_STAT_E>(stored);
    }
    return PV_STAT_LOCAL; /* failed, unconfirmed or on its way when the gateway stopped: send it again */
}

} // namespace

std::string range_of(const DP_CNTL_S &dp)
{
    switch (dp.dp_desc.prop_tp) {
    case PROP_VALUE: {
        const DP_PROP_VAL_S &v = dp.prop.prop_value;
        return std::to_string(v.min) + ".." + std::to_string(v.max) + "/" + std::to_string(v.step) + "/" +
               std::to_string(v.scale);
    }
    case PROP_STR:
        return "len " + std::to_string(dp.prop.prop_str.max_len);
    case PROP_BITMAP:
        return "bits " + std::to_string(dp.prop.prop_bitmap.max_len);
    default:
        return std::string(); /* bool; enum values are stored as names and looked up again */
    }
}

void copy_rows(const Marks *which, long long time_ms, std::vector<Row> *out)
{
    std::vector<std::string> ids;
    std::vector<Copied> copied;
    {
        DevLock lock;
        for (DEV_CNTL_N_S *dev = get_gw_cntl()->dev; dev != nullptr; dev = dev->next) {
            if (which != nullptr && which->count(dev) == 0) {
                continue;
            }
            ids.emplace_back(dev->dev_if.id);
            for (BYTE_T i = 0; i < dev->dp_num; ++i) {
                if (stored_kind(dev->dp[i])) {
                    copied.push_back({ids.size() - 1, dev->dp[i], text_of(dev->dp[i])});
                }
            }
        }
    }
    for (Copied &c : copied) {
        Row row;
        row.dev = ids[c.dev];
        row.dpid = c.dp.dp_desc.dp_id;
        row.prop = c.dp.dp_desc.prop_tp;
        row.range = range_of(c.dp);
        row.num = number_of(c.dp);
        row.text = std::move(c.text);
        row.pv_stat = c.dp.pv_stat;
        row.time_ms = time_ms;
        out->push_back(std::move(row));
    }
}

void apply_rows(const std::vector<Row> &rows, Restored *out)
{
    DevLock lock;
    std::unordered_map<std::string, DEV_CNTL_N_S *> devices;
    for (DEV_CNTL_N_S *dev = get_gw_cntl()->dev; dev != nullptr; dev = dev->next) {
        devices[dev->dev_if.id] = dev;
    }
    for (const Row &row : rows) {
        const Key key(row.dev, row.dpid);
        const auto found = devices.find(row.dev);
        DP_CNTL_S *dp = nullptr;
        for (BYTE_T i = 0; found != devices.end() && i < found->second->dp_num; ++i) {
            if (found->second->dp[i].dp_desc.dp_id == row.dpid && stored_kind(found->second->dp[i])) {
                dp = &found->second->dp[i];
            }
        }
        if (dp == nullptr) {
            out->dropped.push_back(key);
            continue;
        }
        if (row.prop != dp->dp_desc.prop_tp || row.range != range_of(*dp) || !put_value(*dp, row)) {
            out->changed.push_back(key);
            out->dropped.push_back(key);
            continue;
        }
        dp->pv_stat = restored_pv_stat(row.pv_stat);
        out->applied.push_back(key);
        out->unconfirmed += dp->pv_stat == PV_STAT_LOCAL ? 1 : 0;
    }
}

} // namespace sf_state
