/*
 * The LAN channel's shared state for the fuzz targets, which drive its
 * frame handling without its socket thread (lan_server.cpp, which also
 * defines these, is not linked: its report entry points are the fakes').
 */
#include "port/posix/lan_channel_state.h"

namespace sf_lan {

posix_sync::Mutex g_mutex;
std::vector<std::unique_ptr<Session>> g_sessions;
Settings g_settings;

} // namespace sf_lan
