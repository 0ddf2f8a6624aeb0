/*
 * The LAN channel's shared state, between its socket thread
 * (lan_server.cpp), its inbound frames (lan_frames.cpp) and the report
 * entry points (lan_reports.cpp). Internal to the channel.
 */
#ifndef SF_POSIX_LAN_CHANNEL_STATE_H
#define SF_POSIX_LAN_CHANNEL_STATE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cloud_defs/kelo_cloud_types.h"
#include "gateway/sync/annotated_lock.h"
#include "lan_psk.h"
#include "lan_session.h"
#include "port/posix/posix_tunables.h"

namespace sf_lan {

struct Settings {
    std::string bind_addr = "127.0.0.1";
    std::string local_key; /* changed by lan_set_local_key, under g_mutex */
    bool tls = true;       /* false: plain TCP (LAN_SECURITY_PLAIN) */
    std::chrono::milliseconds handshake_timeout{SF_LAN_HANDSHAKE_TIMEOUT_MS};
    size_t max_clients = SF_LAN_MAX_CLIENTS;
    size_t max_queue_frames = SF_LAN_MAX_QUEUE_FRAMES;
    size_t max_frame_bytes = SF_LAN_MAX_FRAME_BYTES;
    size_t max_frame_depth = SF_LAN_MAX_FRAME_DEPTH;
    std::chrono::milliseconds auth_timeout{SF_LAN_AUTH_TIMEOUT_MS};
    size_t max_client_commands = SF_LAN_MAX_CLIENT_COMMANDS;
    size_t max_lines_per_turn = SF_LAN_MAX_LINES_PER_TURN;
    size_t max_pending_clients = SF_LAN_MAX_PENDING_CLIENTS;
    size_t max_pending_per_addr = SF_LAN_MAX_PENDING_PER_ADDR;
    std::chrono::milliseconds idle_timeout{SF_LAN_IDLE_TIMEOUT_MS};
    std::chrono::milliseconds frame_timeout{SF_LAN_FRAME_TIMEOUT_MS};
    std::chrono::milliseconds accept_backoff{SF_LAN_ACCEPT_BACKOFF_MS};
    std::chrono::milliseconds evict_pace{SF_LAN_EVICT_PACE_MS};
};

/*
 * Event counters of lan_stats: relaxed atomics, each bumped at the one
 * place its event happens. Zeroed by lan_start.
 */
struct Counters {
    std::atomic<UINT_T> clients_accepted{0};
    std::atomic<UINT_T> auth_refused{0};
    std::atomic<UINT_T> pending_evicted{0};
    std::atomic<UINT_T> dropped_slow{0};
    std::atomic<UINT_T> timed_out{0};
    std::atomic<UINT_T> accept_failures{0};
    std::atomic<UINT_T> poll_wakeups{0};
    std::atomic<UINT_T> handshakes_failed{0};
    std::atomic<UINT_T> closed_for_key_change{0};

    void reset()
    {
        for (std::atomic<UINT_T> *counter : {&clients_accepted, &auth_refused, &pending_evicted, &dropped_slow,
                                             &timed_out, &accept_failures, &poll_wakeups, &handshakes_failed,
                                             &closed_for_key_change}) {
            counter->store(0, std::memory_order_relaxed);
        }
    }
};
extern Counters g_counters;

/* Bump one counter of g_counters. */
inline void count(std::atomic<UINT_T> &counter) { counter.fetch_add(1, std::memory_order_relaxed); }

// g_mutex guards g_sessions, each session's state and g_settings (set by
// lan_start before the channel's thread exists, read-only afterwards but
// for the local key, see lan_set_local_key).
extern sf_sync::Mutex g_mutex;
extern std::vector<std::unique_ptr<Session>> g_sessions SF_GUARDED_BY(g_mutex);
extern Settings g_settings SF_GUARDED_BY(g_mutex);

/*
 * The TLS side of the channel: the context (lan_start creates it before
 * the thread exists and lan_stop frees it after the thread ended; nullptr
 * in plain mode), the PSK of the current local key, and the key's
 * generation, which each session keeps so a key change closes the
 * sessions of the old key.
 */
extern SSL_CTX *g_tls_ctx;
extern Psk g_psk SF_GUARDED_BY(g_mutex);
extern uint64_t g_key_generation SF_GUARDED_BY(g_mutex);

/*
 * A handshake that failed: one line at the progress level (a scan of the
 * port must not flood the log), the metric, and the connection closed
 * without a frame. Caller holds g_mutex.
 */
void handshake_failed(Session *session, const std::string &why) SF_REQUIRES(g_mutex);

/*
 * A session that has proved the key (its TLS handshake, or the auth frame
 * in plain mode) joins the authenticated pool and gets the greeting. The
 * caller has checked that the pool has room, and holds g_mutex.
 */
void welcome(Session *session) SF_REQUIRES(g_mutex);

/* What the first line of a session is, as the authentication frame goes. */
enum class AuthFrame { RightKey, WrongKey, NotAuth };
AuthFrame classify_auth_frame(const std::string &line) SF_REQUIRES(g_mutex);

/*
 * Commands handed to the smart frame and not yet handled, of every client
 * (including clients gone since), and the most there have been. Bounded by
 * max_clients * max_client_commands.
 */
extern size_t g_queued_commands SF_GUARDED_BY(g_mutex);
extern size_t g_queued_commands_peak SF_GUARDED_BY(g_mutex);

/* Wake the channel's thread so it writes what was queued. Any thread. */
void wake_loop();

/* The limits a parsed frame must keep to (bytes, nesting depth), for a parse made without g_mutex. */
struct FrameLimits {
    size_t max_bytes;
    size_t max_depth;
};

/*
 * Admission of a new connection (lan_admission.cpp). Caller holds g_mutex.
 * Adds the session, or closes fd when the authenticated pool is full. A
 * full unauthenticated pool (or the address's share of it) closes its
 * oldest member; then true: the caller waits evict_pace before accepting
 * again, so the newcomer has time to present its key.
 */
bool admit(int fd, const std::string &addr, const std::string &peer, uint64_t id, Clock::time_point now)
    SF_REQUIRES(g_mutex);

/* Close a client that did not authenticate; logged where an operator sees it. Caller holds g_mutex. */
void refuse(Session *session, const char *why) SF_REQUIRES(g_mutex);

/*
 * The clocks of a session: authentication, an unfinished line, silence.
 * Caller holds g_mutex.
 */
void check_timeouts(Session *session, Clock::time_point now) SF_REQUIRES(g_mutex);

/* Authenticated clients connected now (closing ones not counted). Caller holds g_mutex. */
size_t authed_clients() SF_REQUIRES(g_mutex);

/* A command line of an authenticated client, taken in one turn of the loop. */
struct Command {
    uint64_t session;
    std::string peer;
    std::string line;
};

/*
 * Commands the session may still have handed over now: its own quota and
 * what is left of the channel's (clients gone since keep theirs until the
 * dispatch thread reached them). 0: the channel does not read it. Caller
 * holds g_mutex.
 */
size_t command_room(const Session &session) SF_REQUIRES(g_mutex);

/* Count one command of session as handed over (before it is). Caller holds g_mutex. */
void command_taken(Session *session) SF_REQUIRES(g_mutex);

/*
 * Hand a turn's commands to the smart frame in their order, then post,
 * per client, a marker behind them on the dispatch queue: the dispatch
 * thread reaches it once it has handled them, and gives the client its
 * quota back. Caller holds no lock (see hand_over).
 */
void hand_over_turn(const std::vector<Command> &commands, const FrameLimits &limits) SF_EXCLUDES(g_mutex);

/* Take and release the dispatch message id of the markers; lan_start and lan_stop. */
bool open_command_markers();
void close_command_markers();

/*
 * The first line of a session in plain mode: true when it is
 * {"cmd":"auth","key":K} with the right key; the greeting is then queued.
 * Caller holds g_mutex.
 */
bool authenticate(Session *session, const std::string &line) SF_REQUIRES(g_mutex);

/*
 * One line of an authenticated client: parsed within limits and handed to
 * the smart frame as a LAN command. Caller holds no lock: the
 * application's query callback may report back into this channel.
 */
void hand_over(const std::string &peer, const std::string &line, const FrameLimits &limits) SF_EXCLUDES(g_mutex);

} // namespace sf_lan

#endif /* SF_POSIX_LAN_CHANNEL_STATE_H */
