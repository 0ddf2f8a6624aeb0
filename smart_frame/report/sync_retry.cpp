/*
 * Arming the DP sync: every report path that leaves a value stored but
 * unconfirmed asks for a re-send here. The report room owns the request so
 * that it never calls into presence, which runs the sync itself (see
 * presence/dp_sync.cpp) and calls the report road: the call goes one way.
 */
#include "../../services/mqtt_client.h"
#include "../../services/uni_msg_queue.h"
#include "../frame_cntl.h"
#include "../sf_tunables.h"

namespace {

constexpr TIME_MS DP_SYNC_DELAY_MS = SF_DP_SYNC_DELAY_MS;
constexpr INT_T CONN_UP = 1;

} // namespace

/* Any thread. Nothing is armed while MQTT is down: the next failure or the connection side re-arms it. */
extern "C" void sf_start_sync_obj_dp(void)
{
    if (get_mqc_conn_stat() != CONN_UP) {
        return;
    }
    (void)cmmod_start_tm_msg(sf::sf_cntl.tmm_dp_sync, DP_SYNC_DELAY_MS, TIMER_ONCE);
}
