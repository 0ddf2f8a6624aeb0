/*
 * How the LAN channel keeps its wire private: TLS 1.3 with the PSK of the
 * local key (lan_psk.h) by default, plain TCP only by explicit choice and,
 * beyond loopback, only with the operator's second consent; and the change
 * of the local key at run time (lan_set_local_key).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "lan_security.h"

#include <arpa/inet.h>

#include <cstring>

#include "cloud_defs/gw_intf.h"
#include "lan_channel_state.h"
#include "lan_config.h"
#include "services/log_front.h"

namespace sf_lan {

namespace {

/* The gateway id: the identity of the PSK. */
std::string identity()
{
    const GW_CNTL_S *gw = get_gw_cntl();
    return gw != nullptr ? std::string(gw->gw_if.id) : std::string();
}

} // namespace

bool is_loopback(const std::string &addr)
{
    in_addr ip{};
    return ::inet_pton(AF_INET, addr.c_str(), &ip) == 1 && (ntohl(ip.s_addr) >> 24) == 127;
}

OPERATE_RET prepare_security(const LAN_CONFIG_S &cfg, Settings *settings, Security *out)
{
    if (cfg.security != LAN_SECURITY_TLS && cfg.security != LAN_SECURITY_PLAIN) {
        SF_LOG_ERR("LAN security %u is neither TLS (%d) nor plain (%d)", cfg.security, LAN_SECURITY_TLS,
                   LAN_SECURITY_PLAIN);
        return RC_BAD_PARAM;
    }
    settings->tls = cfg.security == LAN_SECURITY_TLS;
    if (!settings->tls) {
        if (!is_loopback(settings->bind_addr) && !cfg.allow_plain_on_network) {
            SF_LOG_ERR("LAN channel refuses plain TCP on %s: the local key and every frame would cross the network "
                       "readable; use TLS, or accept it explicitly",
                       settings->bind_addr.c_str());
            return RC_BAD_PARAM;
        }
        return RC_OK;
    }
    out->ctx = new_server_ctx();
    if (out->ctx == nullptr || !derive_psk(settings->local_key, identity(), &out->psk)) {
        SF_LOG_ERR("LAN channel cannot set up TLS: %s", take_tls_error().c_str());
        SSL_CTX_free(out->ctx);
        out->ctx = nullptr;
        return RC_FAIL;
    }
    return RC_OK;
}

void log_security(const Settings &settings, const Psk &psk, unsigned port)
{
    if (settings.tls) {
        SF_LOG_PROG("LAN channel listening on %s:%u (TLS 1.3, %s, PSK identity \"%s\")", settings.bind_addr.c_str(),
                    port, TLS_SUITE, psk.identity.c_str());
    } else if (is_loopback(settings.bind_addr)) {
        SF_LOG_PROG("LAN channel listening on %s:%u in plain TCP", settings.bind_addr.c_str(), port);
    } else {
        SF_LOG_WARN("LAN channel listening on %s:%u in plain TCP: the local key and every frame can be read on the "
                    "network (accepted by the configuration)",
                    settings.bind_addr.c_str(), port);
    }
}

} // namespace sf_lan

using namespace sf_lan; // this file is part of the channel

extern "C" OPERATE_RET lan_set_local_key(const CHAR_T *key)
{
    if (key == nullptr || key[0] == '\0') {
        SF_LOG_ERR("LAN channel needs a local key that is not empty");
        return RC_BAD_PARAM;
    }
    Psk psk;
    std::string id;
    {
        sf_sync::Guard hold(g_mutex);
        if (g_settings.local_key.empty()) {
            SF_LOG_ERR("LAN channel not started: no local key to change");
            return RC_BAD_PARAM;
        }
        if (g_settings.local_key == key) {
            return RC_OK;
        }
        id = g_psk.identity;
    }
    // The derivation runs without the lock: the channel's thread goes on meanwhile.
    if (!derive_psk(key, id.empty() ? identity() : id, &psk)) {
        SF_LOG_ERR("LAN channel keeps the old local key: %s", take_tls_error().c_str());
        return RC_FAIL;
    }
    size_t closed = 0;
    {
        sf_sync::Guard hold(g_mutex);
        g_settings.local_key = key;
        g_psk = psk;
        ++g_key_generation;
        for (const auto &session : g_sessions) {
            if (!session->closing() && session->key_generation() != g_key_generation) {
                count(g_counters.closed_for_key_change);
                session->close_soon("the local key changed");
                ++closed;
            }
        }
    }
    SF_LOG_NOTICE("LAN channel takes a new local key; %zu connection%s made with the old one closed", closed,
                  closed == 1 ? "" : "s");
    wake_loop();
    return RC_OK;
}
