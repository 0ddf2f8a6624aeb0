/*
 * Reports to the LAN clients: blocks and frames are queued to every
 * authenticated client under the channel's lock and written by its thread;
 * nothing here waits for a socket.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "services/lan_channel.h"
#include "lan_channel_state.h"
#include "port/posix/metrics/metrics.h"
#include "lan_config.h"
#include "gateway/edge/wire_json.h"
#include "services/log_front.h"

using namespace sf_lan; // this file is part of the channel

namespace {

/* Queue to every authenticated client; a full queue drops that client. */
template <typename QueueFn>
size_t queue_to_authed(QueueFn &&queue) SF_REQUIRES(g_mutex)
{
    size_t taken = 0;
    for (const auto &session : g_sessions) {
        if (!session->authed() || session->closing()) {
            continue;
        }
        if (queue(session.get())) {
            ++taken;
        } else {
            SF_LOG_ERR("LAN client %s dropped: %zu frames waiting", session->peer().c_str(),
                       g_settings.max_queue_frames);
            count(g_counters.dropped_slow);
            sf_metrics::count(sf_metrics::LanDroppedSlow);
            session->close_soon("too slow");
        }
    }
    return taken;
}

} // namespace

extern "C" UINT_T lan_authed_client_count(void)
{
    LAN_STATS_S stats;
    lan_stats(&stats);
    return stats.clients;
}

extern "C" OPERATE_RET lan_dp_sata_report(RFC_DATA_S *rfc_data, UINT_T frame_kind)
{
    if (sf_wire::message_of(rfc_data) == nullptr) {
        SF_LOG_ERR("lan_dp_sata_report: no message block");
        return RC_BAD_PARAM;
    }
    size_t taken;
    {
        sf_sync::Guard hold(g_mutex);
        const size_t max_frames = g_settings.max_queue_frames;
        taken = queue_to_authed(
            [&](Session *session) { return session->queue_block(rfc_data, frame_kind, max_frames); });
        if (taken > 0) {
            // Each session holds a reference of its own; the caller's goes.
            put_rfc_data(rfc_data);
        }
    }
    if (taken == 0) {
        return RC_LAN_NOT_SENT;
    }
    wake_loop();
    return RC_OK;
}

extern "C" OPERATE_RET lan_data_report_cb(UINT_T fr_type, UINT_T ret_flag, const CHAR_T *data, UINT_T len)
{
    if (data == nullptr && len != 0) {
        return RC_BAD_PARAM;
    }
    const std::string line =
        sf_wire::wrap_frame({{"type", fr_type}, {"flag", ret_flag}}, data == nullptr ? "" : data, len) + "\n";
    size_t taken;
    {
        sf_sync::Guard hold(g_mutex);
        const size_t max_frames = g_settings.max_queue_frames;
        taken = queue_to_authed([&](Session *session) { return session->queue_text(line, max_frames); });
    }
    if (taken == 0) {
        return RC_LAN_NOT_SENT;
    }
    wake_loop();
    return RC_OK;
}
