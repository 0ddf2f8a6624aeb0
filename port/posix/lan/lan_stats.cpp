/*
 * The LAN channel's counters and current state, for an operator or a test.
 */
#include "lan_channel_state.h"
#include "lan_config.h"

using namespace sf_lan; // this file is part of the channel

extern "C" void lan_stats(LAN_STATS_S *out)
{
    if (out == nullptr) {
        return;
    }
    *out = LAN_STATS_S{};
    {
        sf_sync::Guard hold(g_mutex);
        for (const auto &session : g_sessions) {
            if (!session->closing()) {
                out->clients += session->authed() ? 1 : 0;
                out->pending_clients += session->authed() ? 0 : 1;
            }
        }
        out->queued_commands = static_cast<UINT_T>(g_queued_commands);
        out->queued_commands_peak = static_cast<UINT_T>(g_queued_commands_peak);
    }
    out->clients_accepted = g_counters.clients_accepted.load(std::memory_order_relaxed);
    out->auth_refused = g_counters.auth_refused.load(std::memory_order_relaxed);
    out->pending_evicted = g_counters.pending_evicted.load(std::memory_order_relaxed);
    out->dropped_slow = g_counters.dropped_slow.load(std::memory_order_relaxed);
    out->timed_out = g_counters.timed_out.load(std::memory_order_relaxed);
    out->accept_failures = g_counters.accept_failures.load(std::memory_order_relaxed);
    out->poll_wakeups = g_counters.poll_wakeups.load(std::memory_order_relaxed);
    out->handshakes_failed = g_counters.handshakes_failed.load(std::memory_order_relaxed);
    out->closed_for_key_change = g_counters.closed_for_key_change.load(std::memory_order_relaxed);
}
