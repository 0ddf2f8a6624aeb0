/*
 * The LAN channel's choice of transport at start (lan_security.cpp).
 * Internal to the channel.
 */
#ifndef SF_POSIX_LAN_SECURITY_H
#define SF_POSIX_LAN_SECURITY_H

#include <string>

#include "lan_config.h"
#include "lan_psk.h"

namespace sf_lan {

struct Settings;

/* What TLS mode needs: the context and the PSK of the local key (ctx nullptr in plain mode). */
struct Security {
    SSL_CTX *ctx = nullptr;
    Psk psk;
};

/* An IPv4 address of 127.0.0.0/8. */
bool is_loopback(const std::string &addr);

/*
 * Check cfg's security against settings->bind_addr and set settings->tls;
 * in TLS mode fill *out (the caller frees out->ctx). RC_OK, RC_BAD_PARAM
 * (unknown mode, plain on a network address without consent) or RC_FAIL
 * (the TLS library), each logged.
 */
OPERATE_RET prepare_security(const LAN_CONFIG_S &cfg, Settings *settings, Security *out);

/* The one line at start that says how the channel speaks. */
void log_security(const Settings &settings, const Psk &psk, unsigned port);

} // namespace sf_lan

#endif /* SF_POSIX_LAN_SECURITY_H */
