/*
 * The LAN channel's inbound road without its socket: the bytes a client
 * sends, cut into reads of the sizes the first byte gives, framed into
 * lines by the session's line buffer (longest line 65536, the default of
 * lan_config.h).
 * The first line must authenticate (local key "0123456789abcdef"), as the
 * channel's thread requires; every later line goes to the channel's own
 * hand_over, which parses it within the bounds and hands it to the module
 * with DP_CMD_LAN, on the fakes.
 */
#include <string>
#include <vector>

#include "fuzz/harness.h"
#include "port/posix/lan/lan_channel_state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    static const bool configured = [] {
        sf_lan::g_settings.local_key = "0123456789abcdef";
        return true;
    }();
    (void)configured;
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    /* the limits the channel's thread copies once at its start */
    const sf_lan::FrameLimits limits{sf_lan::g_settings.max_frame_bytes, sf_lan::g_settings.max_frame_depth};
    {
        sf_lan::Session session(-1, "fuzz", sf_lan::Clock::now());
        const size_t chunk = static_cast<size_t>(data[0]) + 1;
        bool open = true;
        for (size_t at = 1; open && at < size; at += chunk) {
            const size_t len = size - at < chunk ? size - at : chunk;
            session.take_bytes(reinterpret_cast<const char *>(data + at), len, sf_lan::Clock::now());
            for (;;) {
                std::string line;
                const sf_lan::LineBuffer::Next next =
                    session.input().next(sf_lan::g_settings.max_frame_bytes, &line);
                if (next == sf_lan::LineBuffer::Next::None) {
                    break;
                }
                if (next == sf_lan::LineBuffer::Next::TooLong) {
                    open = false; /* the channel closes such a client */
                    break;
                }
                if (!session.authed()) {
                    sf_sync::Guard hold(sf_lan::g_mutex);
                    open = sf_lan::authenticate(&session, line);
                    if (!open) {
                        break; /* closed: authentication failed */
                    }
                    continue;
                }
                sf_lan::hand_over(session.peer(), line, limits);
            }
        }
    }
    sf_fuzz::end_run();
    return 0;
}
