/*
 * The LAN channel's shared state (lan_channel_state.h), defined once: the
 * socket thread (lan_server.cpp) and the frame handling (lan_frames.cpp,
 * lan_commands.cpp, lan_reports.cpp) use it, and the fuzz targets, which
 * drive the frame handling without the socket thread, link it too.
 */
#include "lan_channel_state.h"

namespace sf_lan {

sf_sync::Mutex g_mutex;
std::vector<std::unique_ptr<Session>> g_sessions SF_GUARDED_BY(g_mutex);
Settings g_settings SF_GUARDED_BY(g_mutex);
Counters g_counters;
SSL_CTX *g_tls_ctx = nullptr;
Psk g_psk SF_GUARDED_BY(g_mutex);
uint64_t g_key_generation SF_GUARDED_BY(g_mutex) = 0;

} // namespace sf_lan
