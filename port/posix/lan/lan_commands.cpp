/*
 * The LAN channel's command quota: how many commands each client (and the
 * channel as a whole) may have waiting in the dispatch queue, and the
 * markers that give the quota back once the application has handled them.
 *
 * While a client has its full quota waiting, the channel does not read
 * its socket: TCP holds the client back, and nothing it sends costs the
 * gateway memory. No command is dropped for want of room.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <algorithm>
#include <cstring>

#include "services/uni_memory.h"
#include "services/uni_msg_queue.h"
#include "lan_channel_state.h"
#include "services/log_front.h"

namespace sf_lan {

size_t g_queued_commands = 0;
size_t g_queued_commands_peak = 0;

namespace {

/* What the dispatch thread gets back: these many commands of that client are handled. */
struct Marker {
    uint64_t session;
    size_t count;
};

// Set by lan_start before the channel's thread exists, cleared by lan_stop
// after it ended; the dispatch thread only receives it.
MSG_ID g_marker_id = NO_MSG_ID;

void give_back(uint64_t session_id, size_t count) SF_REQUIRES(g_mutex)
{
    g_queued_commands -= std::min(count, g_queued_commands);
    for (const auto &session : g_sessions) {
        if (session->id() == session_id) {
            session->remove_waiting_commands(count);
            break;
        }
    }
}

/* Dispatch thread: every command posted before this marker has been handled. */
void commands_handled(MESSAGE *msg)
{
    Marker marker{};
    if (msg->pMsgData != nullptr && msg->msgDataLen == sizeof marker) {
        std::memcpy(&marker, msg->pMsgData, sizeof marker);
    }
    Free(msg->pMsgData);
    {
        sf_sync::Guard hold(g_mutex);
        give_back(marker.session, marker.count);
    }
    wake_loop();
}

void post_marker(uint64_t session_id, size_t count)
{
    Marker marker{session_id, count};
    if (cmmod_post_msg_malloc(g_marker_id, &marker, sizeof marker) != RC_OK) {
        // Without its marker the quota would never come back: the client
        // would hang. Give it back now; the commands are queued regardless.
        SF_LOG_ERR("LAN command marker not queued: %zu commands not counted", count);
        sf_sync::Guard hold(g_mutex);
        give_back(session_id, count);
    }
}

} // namespace

size_t command_room(const Session &session)
{
    const size_t own = g_settings.max_client_commands;
    const size_t all = g_settings.max_client_commands * g_settings.max_clients;
    if (session.waiting_commands() >= own || g_queued_commands >= all) {
        return 0;
    }
    return std::min(own - session.waiting_commands(), all - g_queued_commands);
}

void command_taken(Session *session)
{
    session->add_waiting_commands(1);
    ++g_queued_commands;
    g_queued_commands_peak = std::max(g_queued_commands_peak, g_queued_commands);
}

void hand_over_turn(const std::vector<Command> &commands, const FrameLimits &limits)
{
    size_t run = 0;
    for (size_t i = 0; i < commands.size(); ++i) {
        hand_over(commands[i].peer, commands[i].line, limits);
        ++run;
        if (i + 1 == commands.size() || commands[i + 1].session != commands[i].session) {
            post_marker(commands[i].session, run);
            run = 0;
        }
    }
}

bool open_command_markers()
{
    MSG_ID id = NO_MSG_ID;
    if (cmmod_get_free_msgid(&id) != RC_OK || cmmod_reg_msgcb(id, commands_handled) != RC_OK) {
        SF_LOG_ERR("LAN channel has no dispatch message id");
        if (id != NO_MSG_ID) {
            cmmod_unreg_msgcb(id);
        }
        return false;
    }
    g_marker_id = id;
    return true;
}

void close_command_markers()
{
    if (g_marker_id != NO_MSG_ID) {
        cmmod_unreg_msgcb(g_marker_id);
        g_marker_id = NO_MSG_ID;
    }
}

} // namespace sf_lan
