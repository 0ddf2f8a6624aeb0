/*
 * The LAN channel's inbound road without its socket: the bytes a client
 * sends, as the TLS layer hands them on once decrypted (or as they come in
 * the plain mode), cut into reads of the sizes the first byte gives, framed
 * into lines by the session's line buffer (longest line 65536, the default
 * of lan_config.h).
 * The low bit of the second byte picks the mode, as the channel's thread
 * runs it:
 *  - TLS (0): the handshake proved the key (the session is welcomed
 *    before any line); a first line that is an auth frame is classified
 *    (a right key passed over, a wrong one closes), every other line goes
 *    to the channel's own hand_over;
 *  - plain (1): the first line must authenticate (local key
 *    "0123456789abcdef"), every later line goes to hand_over.
 * hand_over parses within the bounds and hands the command to the module
 * with DP_CMD_LAN, on the fakes.
 */
#include <string>
#include <vector>

#include "fuzz/harness.h"
#include "port/posix/lan/lan_channel_state.h"

namespace {

/* One line as the channel's thread takes it; false when the channel would close the client. */
bool take_line(sf_lan::Session *session, bool tls, const std::string &line, const sf_lan::FrameLimits &limits)
{
    if (!session->authed()) {
        sf_sync::Guard hold(sf_lan::g_mutex);
        return sf_lan::authenticate(session, line);
    }
    if (tls && session->take_first_line()) {
        sf_sync::Guard hold(sf_lan::g_mutex);
        const sf_lan::AuthFrame auth = sf_lan::classify_auth_frame(line);
        if (auth != sf_lan::AuthFrame::NotAuth) {
            return auth == sf_lan::AuthFrame::RightKey;
        }
    }
    sf_lan::hand_over(session->peer(), line, limits);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    static const bool configured = [] {
        sf_sync::Guard hold(sf_lan::g_mutex);
        sf_lan::g_settings.local_key = "0123456789abcdef";
        return true;
    }();
    (void)configured;
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    const bool tls = (data[1] & 1) == 0;
    /* the limits the channel's thread copies once at its start */
    sf_lan::FrameLimits limits{};
    {
        sf_sync::Guard hold(sf_lan::g_mutex);
        limits = sf_lan::FrameLimits{sf_lan::g_settings.max_frame_bytes, sf_lan::g_settings.max_frame_depth};
    }
    {
        sf_lan::Session session(-1, "fuzz", sf_lan::Clock::now());
        if (tls) {
            sf_sync::Guard hold(sf_lan::g_mutex);
            sf_lan::welcome(&session);
        }
        const size_t chunk = static_cast<size_t>(data[0]) + 1;
        bool open = true;
        for (size_t at = 2; open && at < size; at += chunk) {
            const size_t len = size - at < chunk ? size - at : chunk;
            session.take_bytes(reinterpret_cast<const char *>(data + at), len, sf_lan::Clock::now());
            for (;;) {
                std::string line;
                const sf_lan::LineBuffer::Next next = session.input().next(limits.max_bytes, &line);
                if (next == sf_lan::LineBuffer::Next::None) {
                    break;
                }
                if (next == sf_lan::LineBuffer::Next::TooLong || !take_line(&session, tls, line, limits)) {
                    open = false; /* the channel closes such a client */
                    break;
                }
            }
        }
    }
    sf_fuzz::end_run();
    return 0;
}
