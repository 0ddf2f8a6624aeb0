/*
 * Who the LAN channel lets in, and for how long.
 *
 * Authenticated clients and connections still waiting to present the key
 * live in separate pools: the waiting ones can never take the place of an
 * authenticated client. The waiting pool is small and a newcomer closes its
 * oldest member (within its own address first), so clients without the key
 * cannot keep a legitimate client out by holding connections open. In
 * TLS mode a connection waits until its handshake is done, so a stalled
 * handshake is one of the waiting too.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <unistd.h>

#include "lan_channel_state.h"
#include "port/posix/metrics/metrics.h"
#include "services/log_front.h"

namespace sf_lan {

namespace {

/* The oldest waiting session (of addr, when given) and how many wait. */
Session *oldest_pending(const std::string *addr, size_t *count) SF_REQUIRES(g_mutex)
{
    Session *oldest = nullptr;
    *count = 0;
    for (const auto &session : g_sessions) {
        if (session->authed() || session->closing() || (addr != nullptr && session->addr() != *addr)) {
            continue;
        }
        ++*count;
        if (oldest == nullptr) {
            oldest = session.get(); // sessions are kept in accept order
        }
    }
    return oldest;
}

void evict(Session *session) SF_REQUIRES(g_mutex)
{
    count(g_counters.pending_evicted);
    SF_LOG_WARN("LAN client %s closed before authenticating: a newer connection needs its place",
                session->peer().c_str());
    session->close_soon("evicted by a newer connection");
}

} // namespace

size_t authed_clients()
{
    size_t authed = 0;
    for (const auto &session : g_sessions) {
        authed += session->authed() && !session->closing() ? 1 : 0;
    }
    return authed;
}

bool admit(int fd, const std::string &addr, const std::string &peer, uint64_t id, Clock::time_point now)
{
    const size_t authed = authed_clients();
    if (authed >= g_settings.max_clients) {
        SF_LOG_ERR("LAN client %s refused: %zu clients connected", peer.c_str(), authed);
        ::close(fd);
        return false;
    }
    size_t same_addr = 0;
    size_t all = 0;
    Session *oldest_same = oldest_pending(&addr, &same_addr);
    Session *oldest_all = oldest_pending(nullptr, &all);
    Session *victim = same_addr >= g_settings.max_pending_per_addr ? oldest_same
                      : all >= g_settings.max_pending_clients       ? oldest_all
                                                                    : nullptr;
    if (victim != nullptr) {
        evict(victim);
    }
    auto session = std::make_unique<Session>(fd, peer, now, addr, id);
    session->set_key_generation(g_key_generation);
    if (g_tls_ctx != nullptr && !session->start_tls(g_tls_ctx, g_psk)) {
        SF_LOG_ERR("LAN client %s refused: TLS set-up failed: %s", peer.c_str(), take_tls_error().c_str());
        return victim != nullptr; // the session's destructor closes fd
    }
    SF_LOG_PROG("LAN client %s connected", peer.c_str());
    count(g_counters.clients_accepted);
    g_sessions.push_back(std::move(session));
    return victim != nullptr;
}

void refuse(Session *session, const char *why)
{
    count(g_counters.auth_refused);
    sf_metrics::count(sf_metrics::LanAuthRefused);
    SF_LOG_WARN("LAN client %s refused: %s", session->peer().c_str(), why);
    session->close_soon(why);
}

void handshake_failed(Session *session, const std::string &why)
{
    count(g_counters.handshakes_failed);
    sf_metrics::count(sf_metrics::LanHandshakeFailed);
    SF_LOG_PROG("LAN client %s: TLS handshake failed: %s", session->peer().c_str(), why.c_str());
    session->close_soon("TLS handshake failed");
}

void check_timeouts(Session *session, Clock::time_point now)
{
    if (session->closing()) {
        return;
    }
    if (session->handshaking()) {
        if (now - session->opened() > g_settings.handshake_timeout) {
            handshake_failed(session, "not finished in time");
        }
        return;
    }
    if (session->peer_done()) {
        // A half-closed client gets its answers, within the bound of an unfinished frame.
        if (now - session->peer_done_at() > g_settings.frame_timeout) {
            session->close_soon("closed by the peer, its answers not written in time");
        }
        return;
    }
    if (!session->authed()) {
        if (now - session->opened() > g_settings.auth_timeout) {
            refuse(session, "no authentication in time");
        }
        return;
    }
    const char *why = nullptr;
    if (session->input().partial() && now - session->partial_since() > g_settings.frame_timeout) {
        why = "an unfinished frame for too long";
    } else if (now - session->last_input() > g_settings.idle_timeout) {
        why = "silent for too long";
    }
    if (why != nullptr) {
        count(g_counters.timed_out);
        SF_LOG_WARN("LAN client %s timed out: %s", session->peer().c_str(), why);
        session->close_soon(why);
    }
}

} // namespace sf_lan
