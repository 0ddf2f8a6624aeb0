/* The conformance suite's backend hooks for the deterministic fakes. */
#include "backend.h"

#include "tests/fakes/fakes.h"

namespace conformance {

const char *backend_name()
{
    return "fakes";
}

void load_gateway(const std::string &gw_id, const std::vector<std::string> &sub_ids)
{
    using namespace fake::registry;
    fake::reset_all();
    set_gateway(gw_id, {dp_bool(1)});
    for (const std::string &id : sub_ids) {
        add_device(id, {dp_bool(1), dp_bool(2)});
    }
}

void set_cloud_connected(bool connected)
{
    fake::registry::set_nw_status(connected ? GW_NW_CLOUD : GW_NW_LAN);
}

void tear_down() {}

bool run_until(const std::function<bool()> &cond, uint64_t limit_ms)
{
    constexpr uint64_t STEP_MS = 10;
    for (uint64_t spent = 0;; spent += STEP_MS) {
        fake::msgq::run_all();
        if (cond()) {
            return true;
        }
        if (spent >= limit_ms) {
            return false;
        }
        fake::timers::advance(STEP_MS);
    }
}

} // namespace conformance
