/*
 * The MQTT client's side of the command journal (mqtt_journal.h).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "mqtt_journal.h"

#include <cstring>
#include <vector>

#include "port/posix/metrics/metrics.h"
#include "port/posix/state/command_journal.h"
#include "services/log_front.h"
#include "services/uni_memory.h"

namespace sf_mqtt {

namespace {

/* Dispatch thread: the journaled command posted before this message has been run. */
void on_command_applied(MESSAGE *msg)
{
    if (msg != nullptr && msg->pMsgData != nullptr) {
        int64_t seq = 0;
        std::memcpy(&seq, msg->pMsgData, sizeof seq);
        sf_state::journal::done(seq);
        Free(msg->pMsgData);
    }
}

} // namespace

/*
 * Commands left in the journal by the last run go first, in the order they
 * arrived, before anything the broker sends now (the network thread does
 * not run yet). One whose expiry passed is dropped by the worker.
 */
void take_journal(Client *client)
{
    client->journaled = sf_state::journal::is_open();
    if (!client->journaled) {
        return;
    }
    // Registered once for the process and never released: the markers of
    // the last commands must still run when mqc_stop is long gone, while
    // cmmod_stop drains the queue (handlers survive a stop).
    static MSG_ID done_msg = 0;
    if (done_msg == 0) {
        MSG_ID mid = 0;
        if (cmmod_get_free_msgid(&mid) == RC_OK && cmmod_reg_msgcb(mid, on_command_applied) == RC_OK) {
            done_msg = mid;
        }
    }
    client->done_msg = done_msg;
    client->inbound->set_done_message(done_msg);
    const std::vector<sf_state::journal::Entry> entries = sf_state::journal::read_all();
    size_t taken = 0;
    for (const sf_state::journal::Entry &e : entries) {
        const sf_wire::CmdKind kind = sf_wire::cmd_kind_from_name(e.kind.c_str());
        if (kind == sf_wire::CmdKind::Unknown) {
            sf_state::journal::done(e.seq);
            continue;
        }
        sf_metrics::count(sf_metrics::CommandsReplayed);
        client->inbound->push(kind, e.payload.data(), e.payload.size(), 1, e.seq, e.expires_ms);
        ++taken;
    }
    if (taken > 0) {
        SF_LOG_NOTICE("%zu commands taken from the journal of the last run: applied first, in order", taken);
    }
}

} // namespace sf_mqtt
