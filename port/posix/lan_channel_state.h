/*
 * The LAN channel's shared state, between its socket thread
 * (lan_server.cpp), its inbound frames (lan_frames.cpp) and the report
 * entry points (lan_reports.cpp). Internal to the channel.
 */
#ifndef SF_POSIX_LAN_CHANNEL_STATE_H
#define SF_POSIX_LAN_CHANNEL_STATE_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lan_session.h"
#include "posix_tunables.h"

namespace sf_lan {

struct Settings {
    std::string bind_addr = "127.0.0.1";
    std::string local_key;
    size_t max_clients = SF_LAN_MAX_CLIENTS;
    size_t max_queue_frames = SF_LAN_MAX_QUEUE_FRAMES;
    size_t max_frame_bytes = SF_LAN_MAX_FRAME_BYTES;
    size_t max_frame_depth = SF_LAN_MAX_FRAME_DEPTH;
    std::chrono::milliseconds auth_timeout{SF_LAN_AUTH_TIMEOUT_MS};
};

// g_mutex guards g_sessions, each session's state and g_settings (set by
// lan_start before the channel's thread exists, read-only afterwards).
extern std::mutex g_mutex;
extern std::vector<std::unique_ptr<Session>> g_sessions;
extern Settings g_settings;

/* Wake the channel's thread so it writes what was queued. Any thread. */
void wake_loop();

/*
 * The first line of a session: true when it is {"cmd":"auth","key":K} with
 * the right key; the greeting is then queued. Caller holds g_mutex.
 */
bool authenticate(Session *session, const std::string &line);

/*
 * One line of an authenticated client: parsed within the bounds and handed
 * to the smart frame as a LAN command. Caller holds no lock: the
 * application's query callback may report back into this channel.
 */
void hand_over(const std::string &peer, const std::string &line);

} // namespace sf_lan

#endif /* SF_POSIX_LAN_CHANNEL_STATE_H */
