/*
 * One simulated device: the values of its DPs and what it does with a
 * command, a query or the passing of time. Pure logic, no smart frame
 * calls: the simulator thread turns the texts it returns into reports.
 * Not thread-safe; owned by the simulator thread.
 */
#ifndef SFGW_SIM_DEVICE_H
#define SFGW_SIM_DEVICE_H

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/description.h"

namespace sfgw {

/* DP number and its JSON value, e.g. {1, "true"} or {21, "\"colour\""}. */
using DpValues = std::vector<std::pair<int, std::string>>;

class SimDevice {
public:
    /*
     * description must outlive the device: the device reads its schema and
     * settings there rather than keeping a copy (10,000 devices, 10,000
     * copies otherwise).
     */
    SimDevice(const apps::DeviceDescription &description, bool is_gateway);
    SimDevice(apps::DeviceDescription &&, bool) = delete;

    const std::string &id() const { return schema_->id; }
    bool is_gateway() const { return is_gateway_; }
    const apps::DeviceSchema &schema() const { return *schema_; }
    const apps::SimSettings &settings() const { return *sim_; }
    bool supervised() const { return !is_gateway_ && schema_->bind; }

    /* A silent device hears nothing and says nothing: no heartbeats, no answers, no reports. */
    bool silent() const { return silent_; }
    void set_silent(bool silent) { silent_ = silent; }

    /*
     * Apply a command. Read-only DPs and values that do not fit are left
     * out (*refused names them). Returns the report of the commanded DPs
     * that the device reports (not the write-only ones), "" when none.
     */
    std::string apply(const DpValues &values, std::vector<std::string> *refused);

    /* The report text of the given DPs, or of every reportable object DP when dpids is empty. */
    std::string report_of(const std::vector<int> &dpids) const;

    /*
     * The DPs of a query the gateway can answer from the values it holds:
     * the asked ones (every one when dpids is empty) that are reported
     * object DPs, less the passive DPs a preprocessing device holds back.
     */
    std::vector<int> answerable(const std::vector<int> &dpids) const;

    /*
     * The state the device kept while the gateway was down (restored
     * values, JSON): it wins over the description's start-up values.
     */
    void restore(const DpValues &values);

    /*
     * Take the description's start-up values (a restored value wins) and
     * return the DPs the start-up report names: the restored ones and
     * those with a start-up value, empty when the device has neither.
     */
    std::vector<int> start_values();

    /* The start-up report text: report_of(start_values()), "" when it names no DP. */
    std::string initial_report();

    /* One drift step of the drifting DP; its report text, "" when it did not move. */
    std::string drift_step();

    /* The current JSON value of a DP (its default before any value). */
    std::string value_of(int dpid) const;

    /* The raw bytes of a raw DP, as last commanded or sampled. */
    std::vector<unsigned char> &raw_bytes(int dpid) { return raw_[dpid]; }

private:
    static std::string default_value(const apps::DpSchema &dp);
    bool reportable(const apps::DpSchema &dp) const;
    long long number_of(int dpid) const;

    const apps::DeviceSchema *schema_;
    const apps::SimSettings *sim_;
    std::unique_ptr<apps::SimSettings> gateway_sim_; /* the gateway's own copy, without heartbeats */
    bool is_gateway_;
    bool silent_ = false;
    int drift_direction_ = 1;
    std::map<int, std::string> values_;
    std::map<int, std::vector<unsigned char>> raw_;
    std::vector<int> restored_;
};

/* {"1":true,"21":"colour"} from pairs, in the order given. */
std::string report_text(const DpValues &values);

} // namespace sfgw

#endif /* SFGW_SIM_DEVICE_H */
