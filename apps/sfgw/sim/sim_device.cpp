#include "sim_device.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdlib>

namespace sfgw {

std::string report_text(const DpValues &values)
{
    std::string text = "{";
    for (const auto &value : values) {
        text += (text.size() > 1 ? "," : "") + std::string("\"") + std::to_string(value.first) + "\":" + value.second;
    }
    return text + "}";
}

SimDevice::SimDevice(const apps::DeviceDescription &description, bool is_gateway)
    : schema_(&description.schema), sim_(&description.sim), is_gateway_(is_gateway)
{
    if (is_gateway_) {
        gateway_sim_ = std::make_unique<apps::SimSettings>(description.sim);
        gateway_sim_->heartbeat_s = 0;
        sim_ = gateway_sim_.get();
    }
    for (const apps::DpSchema &dp : schema_->dps) {
        if (dp.type == "obj") {
            values_[dp.id] = default_value(dp);
        }
    }
}

std::string SimDevice::default_value(const apps::DpSchema &dp)
{
    if (dp.prop == "bool") {
        return "false";
    }
    if (dp.prop == "value") {
        return std::to_string(std::clamp(0LL, dp.min, dp.max));
    }
    if (dp.prop == "enum") {
        return dp.range.empty() ? "\"\"" : apps::json_quote(dp.range[0]);
    }
    if (dp.prop == "str") {
        return "\"\"";
    }
    return "0";
}

bool SimDevice::reportable(const apps::DpSchema &dp) const { return dp.type == "obj" && dp.mode != "wr"; }

std::string SimDevice::value_of(int dpid) const
{
    const auto found = values_.find(dpid);
    return found != values_.end() ? found->second : "null";
}

long long SimDevice::number_of(int dpid) const { return std::atoll(value_of(dpid).c_str()); }

std::string SimDevice::apply(const DpValues &values, std::vector<std::string> *refused)
{
    DpValues reported;
    for (const auto &value : values) {
        const apps::DpSchema *dp = schema_->find(value.first);
        std::string why;
        cJSON *parsed = cJSON_Parse(value.second.c_str());
        const bool fits = dp != nullptr && dp->type == "obj" && dp->mode != "ro" && apps::value_fits(*dp, parsed, &why);
        cJSON_Delete(parsed);
        if (!fits) {
            refused->push_back(std::to_string(value.first));
            continue;
        }
        values_[dp->id] = value.second;
        if (reportable(*dp)) {
            reported.push_back(value);
        }
    }
    return reported.empty() ? "" : report_text(reported);
}

std::string SimDevice::report_of(const std::vector<int> &dpids) const
{
    DpValues values;
    for (const apps::DpSchema &dp : schema_->dps) {
        const bool asked = dpids.empty() || std::find(dpids.begin(), dpids.end(), dp.id) != dpids.end();
        if (asked && reportable(dp)) {
            values.emplace_back(dp.id, value_of(dp.id));
        }
    }
    return values.empty() ? "" : report_text(values);
}

std::vector<int> SimDevice::answerable(const std::vector<int> &dpids) const
{
    std::vector<int> out;
    for (const apps::DpSchema &dp : schema_->dps) {
        const bool asked = dpids.empty() || std::find(dpids.begin(), dpids.end(), dp.id) != dpids.end();
        const bool held_back = dp.passive && schema_->preprocess;
        if (asked && reportable(dp) && !held_back) {
            out.push_back(dp.id);
        }
    }
    return out;
}

void SimDevice::restore(const DpValues &values)
{
    for (const auto &value : values) {
        values_[value.first] = value.second;
        restored_.push_back(value.first);
    }
}

std::vector<int> SimDevice::start_values()
{
    std::vector<int> dpids = restored_;
    for (const auto &value : sim_->initial) {
        if (std::find(restored_.begin(), restored_.end(), value.first) == restored_.end()) {
            values_[value.first] = value.second;
            dpids.push_back(value.first);
        }
    }
    return dpids;
}

std::string SimDevice::initial_report()
{
    const std::vector<int> dpids = start_values();
    return dpids.empty() ? "" : report_of(dpids);
}

std::string SimDevice::drift_step()
{
    const apps::DpSchema *dp = sim_->has_drift ? schema_->find(sim_->drift.dp) : nullptr;
    if (dp == nullptr) {
        return "";
    }
    const long long now = number_of(dp->id);
    long long next = now;
    if (sim_->drift.toward != 0) {
        /* a room warms or cools towards its set point */
        const long long target = number_of(sim_->drift.toward);
        next = now < target ? std::min(target, now + sim_->drift.step) : std::max(target, now - sim_->drift.step);
    } else {
        next = now + drift_direction_ * sim_->drift.step;
        if (next > dp->max || next < dp->min) {
            drift_direction_ = -drift_direction_;
            next = now + drift_direction_ * sim_->drift.step;
        }
    }
    next = std::clamp(next, dp->min, dp->max);
    if (next == now) {
        return "";
    }
    values_[dp->id] = std::to_string(next);
    return report_text({{dp->id, values_[dp->id]}});
}

} // namespace sfgw
