/*
 * The TLS 1.3 external pre-shared key of the LAN channel
 * (docs/wire-protocol.md section 8), shared by the channel (the server) and
 * its clients (sfcloud, the tests, the benchmarks).
 *
 *   identity:     the gateway id, its bytes as they are;
 *   key:          HKDF-SHA256 (RFC 5869) of the local key, salt
 *                 "sf-lan-psk-v1", info the gateway id, 32 bytes;
 *   cipher suite: TLS_AES_128_GCM_SHA256 only, TLS 1.3 only, key exchange
 *                 psk_dhe_ke (ECDHE on top of the PSK: forward secrecy).
 *
 * The local key itself never crosses the wire: both ends prove they know
 * it by the handshake's PSK binder and Finished messages.
 */
#ifndef SF_POSIX_LAN_PSK_H
#define SF_POSIX_LAN_PSK_H

#include <openssl/ssl.h>

#include <array>
#include <string>

namespace sf_lan {

constexpr size_t PSK_BYTES = 32;
constexpr const char *PSK_SALT = "sf-lan-psk-v1";
constexpr const char *TLS_SUITE = "TLS_AES_128_GCM_SHA256";

/* One side's key material; must outlive every SSL it is bound to. */
struct Psk {
    std::string identity;
    std::array<unsigned char, PSK_BYTES> key{};
};

/* The PSK of local_key for the gateway identity; false (logged by the caller) when OpenSSL fails. */
bool derive_psk(const std::string &local_key, const std::string &identity, Psk *out);

/*
 * A context for the channel's side or a client's: TLS 1.3 only, the one
 * suite, no session tickets, no certificate, partial writes allowed (the
 * channel writes from a non-blocking loop), an EOF without close_notify
 * taken as a close. nullptr when OpenSSL fails. The caller frees it.
 */
SSL_CTX *new_server_ctx();
SSL_CTX *new_client_ctx();

/* Make ssl (of a context above) use psk; psk outlives ssl. */
void bind_psk(SSL *ssl, const Psk *psk);

/* The reason of OpenSSL's oldest queued error ("no reason" when none); the queue is cleared. */
std::string take_tls_error();

} // namespace sf_lan

#endif /* SF_POSIX_LAN_PSK_H */
